// The limits of the process, and the choice of the connection that is closed when one is reached.
//
// Unread replies. All connections together may have 64 MiB of replies waiting in this process.
// Beyond that, the connection with the most is closed.
//
// Partly received frames. They may take 64 MiB. While they take more, a connection that holds
// kPartialAlways or more is refused (its receiver stops reading and asks again every 50 ms), except
// the one whose frame began first among those that made progress within the last second: so one
// frame after the other is completed. While the limit is exceeded, connections are closed whose
// frame has not grown for a second, because nothing arrives or because they are refused: those of
// the process that holds most first. So frames that do not end keep no other client waiting. A
// second means a second in which this process looked. The clock advances when a connection is
// refused or the limits are enforced, and by kLongestTick at most, so that a handler that takes
// long does not make its clients look idle.
//
// File descriptors. When there are none left for a new connection, one connection of the client
// process that has the most is closed: the one that has been silent longest. A request that is
// being handled protects its connection, but only a quarter of the file descriptors may be
// protected in this way for one client process. If it has more, all its handled connections may be
// closed as well, after its silent ones.
//
// Locks. The accounts are read and changed under the intake's lock alone. The connection to close
// is chosen under that lock and closed by its receiver afterwards, under the receiver's lock; in
// between it may have changed or gone, which the receiver notices. No thread ever holds the locks
// of two receivers.

#include "platform/host/ports/intake.h"

#include <sys/resource.h>

#include <algorithm>
#include <cassert>
#include <mutex>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"

namespace {

constexpr size_t kPartialInAll = size_t{64} << 20;
constexpr size_t kPartialAlways = size_t{64} << 10;  // a frame may begin whatever others hold
constexpr size_t kQueuedInAll = size_t{64} << 20;
constexpr int64_t kPatience = kHostSecond;
constexpr int64_t kLongestTick = 100 * kHostMillisecond;
constexpr size_t kProtectedShare =
    4;  // of the file descriptors, one in so many may be protected for one client process

constinit std::atomic<HostIntake*> sIntake{nullptr};
constinit const HostIntake* sInherited = nullptr;

// The parent's intake may be half changed by a thread that does not exist here.
void ForgetInChild() {
  if (HostIntake* intake = sIntake.exchange(nullptr, std::memory_order_relaxed)) {
    sInherited = intake;
  }
}

size_t ProtectedPerProcess() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return static_cast<size_t>(limit.rlim_cur / kProtectedShare);
}

}  // namespace

HostIntake& HostIntake::OfThisProcess() {
  HostIntake* intake = sIntake.load(std::memory_order_acquire);
  return intake != nullptr ? *intake : Make();
}

HostIntake& HostIntake::Make() {
  static const bool sInstalled = (HostAtForkInChild(ForgetInChild), true);
  (void)sInstalled;
  auto made = std::make_unique<HostIntake>();
  made->inherited = sInherited;
  HostIntake* expected = nullptr;
  if (!sIntake.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel)) {
    return *expected;
  }
  return *made.release();  // never destroyed: receivers may outlive every static
}

void HostIntake::Join(std::weak_ptr<HostIntakeMember> member) {
  const std::lock_guard<HostMutex> lock(mutex);
  HostIntakeMember* const raw = member.lock().get();
  members.push_back({raw, std::move(member)});
}

void HostIntake::Leave(HostIntakeMember* member) {
  const std::lock_guard<HostMutex> lock(mutex);
  std::erase_if(members, [member](const Member& each) { return each.member == member; });
}

// Accounts.

void HostIntake::SetPartial(HostAccount& account, size_t bytes) {
  if (bytes == 0 && account.partial == 0) return;
  const std::lock_guard<HostMutex> lock(mutex);
  partialInAll.fetch_add(bytes - account.partial, std::memory_order_relaxed);
  if (account.partialSince == 0) account.partialSince = HostNow();
  if (bytes == 0) account.partialSince = 0;
  account.partial = bytes;
  account.progressAt = clock;
  List(account);
}

void HostIntake::SetQueued(HostAccount& account, size_t bytes) {
  if (bytes == account.queued) return;
  const std::lock_guard<HostMutex> lock(mutex);
  queuedInAll.fetch_add(bytes - account.queued, std::memory_order_relaxed);
  // More replies in the queue do not mean that the peer reads.
  if (bytes < account.queued || account.queuedSince == 0) account.queuedSince = HostNow();
  if (bytes == 0) account.queuedSince = 0;
  account.queued = bytes;
  List(account);
}

// Brings the list up to date after a change of `account`.
void HostIntake::List(HostAccount& account) {
  mutex.AssertHeld();
  assert(partialInAll.load() >= account.partial && queuedInAll.load() >= account.queued);
  const bool holds = account.partial > 0 || account.queued > 0;
  if (holds == account.isListed) return;
  account.isListed = holds;
  if (holds) {
    account.previous = nullptr;
    account.next = first;
    if (first != nullptr) first->previous = &account;
    first = &account;
    return;
  }
  assert(account.previous != nullptr || first == &account);
  (account.previous != nullptr ? account.previous->next : first) = account.next;
  if (account.next != nullptr) account.next->previous = account.previous;
  account.next = account.previous = nullptr;
}

bool HostIntake::IsOverLimit() const {
  return QueuedBytes() > kQueuedInAll || PartialBytes() > kPartialInAll;
}

void HostIntake::Tick() {
  mutex.AssertHeld();
  const int64_t now = HostNow();
  clock += std::min(now - lastTick, kLongestTick);
  lastTick = now;
}

bool HostIntake::IsStalled(const HostAccount& account) const {
  return account.progressAt + kPatience <= clock;
}

bool HostIntake::MayReadOn(const HostAccount& account) {
  if (PartialBytes() <= kPartialInAll || account.partial < kPartialAlways) return true;
  const std::lock_guard<HostMutex> lock(mutex);
  Tick();
  const HostAccount* oldest = nullptr;
  for (const HostAccount* each = first; each != nullptr; each = each->next) {
    if (each->partial < kPartialAlways || IsStalled(*each)) continue;
    if (oldest == nullptr || each->partialSince < oldest->partialSince) oldest = each;
  }
  return oldest == nullptr || oldest == &account;
}

// Choosing a connection to close.

const HostAccount* HostIntake::Fullest() const {
  mutex.AssertHeld();
  const HostAccount* fullest = nullptr;
  for (const HostAccount* each = first; each != nullptr; each = each->next) {
    if (fullest == nullptr || each->queued > fullest->queued) fullest = each;
  }
  return fullest;
}

const HostAccount* HostIntake::HeaviestStalled() const {
  mutex.AssertHeld();
  std::unordered_map<pid_t, size_t> held;
  for (const HostAccount* each = first; each != nullptr; each = each->next) {
    held[each->pid] += each->partial;
  }
  const auto rank = [&held](const HostAccount& each) {
    return std::pair(held[each.pid], each.partial);
  };
  const HostAccount* heaviest = nullptr;
  for (const HostAccount* each = first; each != nullptr; each = each->next) {
    if (each->partial == 0 || !IsStalled(*each)) continue;
    if (heaviest == nullptr || rank(*each) > rank(*heaviest)) heaviest = each;
  }
  return heaviest;
}

std::shared_ptr<HostIntakeMember> HostIntake::OwnerOf(const HostAccount& account) const {
  const auto found = std::find_if(members.begin(), members.end(), [&account](const Member& each) {
    return each.member == account.member;
  });
  return found == members.end() ? nullptr : found->owner.lock();
}

// Closes one connection. Returns false if the process is within its limits, or none may be closed.
bool HostIntake::CloseHolder() {
  std::shared_ptr<HostIntakeMember> owner;
  uint32_t number = 0;
  const bool isChosen = HostGuard(false, [&] {
    const std::lock_guard<HostMutex> lock(mutex);
    Tick();
    const HostAccount* account = nullptr;
    if (QueuedBytes() > kQueuedInAll) account = Fullest();
    if (account == nullptr && PartialBytes() > kPartialInAll) account = HeaviestStalled();
    if (account == nullptr) return false;
    owner = OwnerOf(*account);
    number = account->number;
    return owner != nullptr;  // else its port is being destroyed, which closes it
  });
  if (isChosen) owner->DropHolder(number);
  return isChosen;
}

bool HostIntake::FreeDescriptor() {
  return HostGuard(false, [this] { return FreeOne(); });
}

bool HostIntake::FreeOne() {
  std::vector<std::shared_ptr<HostIntakeMember>> all;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    for (const Member& each : members) {
      if (auto owner = each.owner.lock()) all.push_back(std::move(owner));
    }
  }
  std::vector<HostCandidate> candidates;
  for (const auto& member : all) member->Survey(&candidates);

  struct Held {
    size_t connections = 0;
    size_t handled = 0;
  };
  std::unordered_map<pid_t, Held> held;
  for (const HostCandidate& each : candidates) {
    held[each.pid].connections++;
    if (each.worth == HostWorth::kHandled) held[each.pid].handled++;
  }
  const size_t protectedMost = ProtectedPerProcess();
  std::erase_if(candidates, [&held, protectedMost](const HostCandidate& each) {
    return each.worth == HostWorth::kBusy ||
           (each.worth == HostWorth::kHandled && held[each.pid].handled <= protectedMost);
  });
  std::sort(candidates.begin(), candidates.end(),
            [&held](const HostCandidate& a, const HostCandidate& b) {
              return std::tuple(held[b.pid].connections, a.worth, a.lastActivity) <
                     std::tuple(held[a.pid].connections, b.worth, b.lastActivity);
            });
  return std::any_of(candidates.begin(), candidates.end(), [](const HostCandidate& each) {
    return each.member->GiveUp(each.number, each.worth);
  });
}
