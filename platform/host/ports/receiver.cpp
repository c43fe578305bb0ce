#include "platform/host/ports/receiver.h"

#include <CoreServices/MacErrors.h>
#include <servers/bootstrap.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cassert>
#include <cerrno>

#include <algorithm>
#include <new>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/session/context_directory.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/port_address.h"

namespace {

constexpr int kBacklog = 4096;
constexpr int kAcceptsPerEvent = 64;
constexpr size_t kPartialInAll = size_t{64} << 20;
constexpr size_t kPartialAlways = size_t{64} << 10;  // a frame may begin whatever others hold
constexpr int64_t kPartialAge = 30 * kHostSecond;
constexpr int64_t kRetryAfter = 50 * kHostMillisecond;
constexpr int64_t kDestroyGrace = kHostSecond;

constinit std::atomic<size_t> sPartialInAll{0};

// 62 random bits, so that 1 + id is a file offset; never 0.
uint64_t RandomPortID() {
  uint64_t number = 0;
  do {
    if (getrandom(&number, sizeof number, 0) != sizeof number) number = 0;
    number &= (uint64_t{1} << 62) - 1;
  } while (number == 0);
  return number;
}

bool ReadPeer(int fd, HostPeer* peer) {
  ucred credentials = {};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  peer->pid = credentials.pid;
  peer->uid = credentials.uid;
  return true;
}

// The session's user and root; whose session it is does not change with a later seteuid.
bool MaySpeak(const HostPeer& peer) {
  const HostContext* context = HostGetContext();
  return peer.uid == 0 || (context != nullptr && peer.uid == context->uid);
}

bool IsDescriptorShortage(int error) { return error == EMFILE || error == ENFILE; }

bool IsReadable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

void ChangeEpoll(int epollSet, int fd, uint64_t data, uint32_t before, uint32_t after) {
  epoll_event event = {};
  event.events = after;
  event.data.u64 = data;
  if (before == 0 && after != 0) {
    epoll_ctl(epollSet, EPOLL_CTL_ADD, fd, &event);
  } else if (before != 0 && after == 0) {
    // Said in so many words: a close alone does not do it while a forked child holds a copy.
    epoll_ctl(epollSet, EPOLL_CTL_DEL, fd, &event);
  } else if (before != after) {
    epoll_ctl(epollSet, EPOLL_CTL_MOD, fd, &event);
  }
}

uint64_t EventData(uint32_t tag, uint32_t connection) { return uint64_t{tag} << 32 | connection; }

}  // namespace

HostReceiver::HostReceiver(mach_port_t portName)
    : name(portName),
      portID(RandomPortID()),
      generation(HostForkGeneration()),
      deadline(kHostNever),
      retryAt(kHostNever),
      destroyEnd(kHostNever) {}

HostReceiver::~HostReceiver() { Destroy(); }

bool HostReceiver::IsForeign() const { return generation != HostForkGeneration(); }

// A message is worth several look-ups of one connection.
HostConnection* HostReceiver::Find(uint32_t number) {
  if (found != nullptr && found->number == number) return found;
  const auto place = connections.find(number);
  if (place == connections.end()) return nullptr;
  found = place->second.get();
  return found;
}

// Names and the socket.

kern_return_t HostReceiver::OpenSocket() {
  if (listener >= 0) return 0;
  sockaddr_un address;
  socklen_t size = 0;
  if (!HostPortAddress(portID, &address, &size)) return KERN_FAILURE;
  int fd = -1;
  {
    HostDescriptorOpening opening;
    fd = opening.Enter(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0),
                       HostDescriptorKind::kListener);
  }
  if (fd < 0) return HostRegistrationStatus(errno);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, kBacklog) != 0) {
    const int error = errno;
    HostCloseDescriptor(fd);
    return HostRegistrationStatus(error);
  }
  listener = fd;
  WatchListener(true);
  return 0;
}

void HostReceiver::CloseSocket() {
  if (listener < 0) return;
  WatchListener(false);
  HostCloseDescriptor(listener);
  listener = -1;
  const HostContext* context = HostGetContext();
  char file[17];
  HostPortFileName(portID, file);
  if (context != nullptr) unlinkat(context->ports, file, 0);
}

kern_return_t HostReceiver::Register(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return KERN_INVALID_RIGHT;
  Claim claim = {service, -1};
  claims.reserve(claims.size() + 1);
  kern_return_t err = OpenSocket();
  if (err == 0) err = HostClaimName(service, portID, &claim.descriptor);
  if (err == 0) claims.push_back(std::move(claim));
  if (err != 0 && claims.empty()) CloseSocket();
  return err;
}

bool HostReceiver::IsRegisteredAs(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  return std::any_of(claims.begin(), claims.end(),
                     [service](const Claim& claim) { return claim.service == service; });
}

bool HostReceiver::Unregister(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign()) return false;
  for (auto claim = claims.begin(); claim != claims.end(); ++claim) {
    if (claim->service != service) continue;
    HostReleaseName(service, claim->descriptor);
    claims.erase(claim);
    return true;
  }
  return false;
}

// Run loops.

void HostReceiver::Watch(int epollSet, uint32_t tag, int wakeDescriptor) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return;
  watchers.push_back({epollSet, tag, wakeDescriptor});
  if (listener >= 0 && !listenerPaused) {
    ChangeEpoll(epollSet, listener, EventData(tag, 0), 0, EPOLLIN);
  }
  for (const auto& [number, connection] : connections) {
    ChangeEpoll(epollSet, connection->descriptor, EventData(tag, number), 0, connection->interest);
  }
}

void HostReceiver::Unwatch(int epollSet) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign()) return;
  const auto watcher =
      std::find_if(watchers.begin(), watchers.end(),
                   [epollSet](const Watcher& each) { return each.epollSet == epollSet; });
  if (watcher == watchers.end()) return;
  watchers.erase(watcher);
  if (listener >= 0 && !listenerPaused) ChangeEpoll(epollSet, listener, 0, EPOLLIN, 0);
  for (const auto& [number, connection] : connections) {
    ChangeEpoll(epollSet, connection->descriptor, 0, connection->interest, 0);
  }
}

void HostReceiver::WatchListener(bool on) {
  for (const Watcher& watcher : watchers) {
    const uint32_t readable = EPOLLIN;
    ChangeEpoll(watcher.epollSet, listener, EventData(watcher.tag, 0), on ? 0 : readable,
                on ? readable : 0);
  }
}

void HostReceiver::HandleEvent(uint32_t number, uint32_t events) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return;
  if (number == 0) {
    Accept();
    return;
  }
  HostConnection* connection = Find(number);
  if (connection == nullptr) return;
  if ((events & EPOLLOUT) != 0) {
    const int error = connection->out.Flush(connection->descriptor);
    // A peer that has gone reads nothing more; what it sent before is still to be read.
    if (error != 0 && error != EAGAIN) connection->out = HostOutQueue();
    CountQueued(*connection);
    UpdateInterest(*connection);
    if (DropIfFinished(*connection)) return;
  }
  if ((events & ~uint32_t{EPOLLOUT}) != 0) Read(*connection);
}

void HostReceiver::HandleDeadline(int64_t now) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return;
  for (auto place = connections.begin(); place != connections.end();) {
    HostConnection& connection = *(place++)->second;  // dropping one leaves the others in place
    const int64_t since = connection.partialSince;
    if (since != 0 && since + kPartialAge <= now) {
      Drop(connection);
    } else if (connection.paused && retryAt <= now) {
      connection.paused = false;
      pausedConnections--;
      UpdateInterest(connection);
    }
  }
  if (listenerPaused && retryAt <= now) {
    listenerPaused = false;
    WatchListener(true);
  }
  if (retryAt <= now) retryAt = kHostNever;
  UpdateDeadline();
}

void HostReceiver::UpdateDeadline() {
  int64_t earliest = retryAt;
  if (partialConnections > 0) {
    for (const auto& [number, connection] : connections) {
      if (connection->partialSince != 0) {
        earliest = std::min(earliest, connection->partialSince + kPartialAge);
      }
    }
  }
  deadline.store(earliest, std::memory_order_relaxed);
}

// Accepting.

void HostReceiver::Accept() {
  for (int i = 0; i < kAcceptsPerEvent && listener >= 0; i++) {
    if (!MakeSpare()) return PauseListener();
    int fd = -1;
    {
      HostDescriptorOpening opening;
      fd = opening.Enter(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC),
                         HostDescriptorKind::kConnection);
    }
    HostPeer peer;
    if (fd >= 0) {
      if (ReadPeer(fd, &peer) && MaySpeak(peer)) {
        HostWidenSocket(fd);
        Admit(fd, peer);
      } else {
        HostCloseDescriptor(fd);
      }
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    const int error = errno;
    if (IsDescriptorShortage(error)) {
      // The kernel reports the shortage also when nobody waits to be accepted.
      if (!IsReadable(listener)) return;
      bool isOneGivenUp = false;
      HostGuard([&] { isOneGivenUp = GiveUpSilentConnection(); });
      if (isOneGivenUp) continue;
    }
    if (error != EAGAIN) PauseListener();
    return;
  }
}

// Nothing can be accepted now; the listener would report itself readable without end.
void HostReceiver::PauseListener() {
  listenerPaused = true;
  WatchListener(false);
  retryAt = std::min(retryAt, HostNow() + kRetryAfter);
  UpdateDeadline();
}

// A connection is accepted only when there is memory for it: a client that waits in the backlog
// notices nothing, one whose connection is closed again takes the server for dead.
bool HostReceiver::MakeSpare() {
  if (!spare.empty()) return true;
  return HostGuard([this] {
    ConnectionMap made;
    made.emplace(0, std::make_unique<HostConnection>());
    connections.reserve(connections.size() + 1);
    spare = made.extract(made.begin());
  });
}

void HostReceiver::Admit(int fd, const HostPeer& peer) {
  do {
    lastConnection++;
  } while (lastConnection == 0 || connections.contains(lastConnection));
  assert(!spare.empty());
  HostConnection& admitted = *spare.mapped();
  admitted.number = lastConnection;
  admitted.acceptOrder = ++acceptCount;
  admitted.descriptor = fd;
  admitted.peer = peer;
  admitted.lastActivity = ++activity;
  spare.key() = lastConnection;
  connections.insert(std::move(spare));
  UpdateInterest(admitted);
}

// Frees a descriptor at the cost of the process that holds most: of its connections the one that
// has been silent longest goes, be it idle or in the middle of a frame. A peer that still means
// that frame sends it again. One that waits for an answer is never taken.
bool HostReceiver::GiveUpSilentConnection() {
  std::unordered_map<pid_t, size_t> held;
  for (const auto& [number, connection] : connections) held[connection->peer.pid]++;
  const auto rank = [&held](const HostConnection& connection) {
    return std::pair(held[connection.peer.pid], ~connection.lastActivity);
  };
  for (;;) {
    HostConnection* choice = nullptr;
    for (const auto& [number, connection] : connections) {
      if (!connection->IsExpendable()) continue;
      if (choice == nullptr || rank(*connection) > rank(*choice)) choice = connection.get();
    }
    if (choice == nullptr) return false;
    const size_t before = connections.size();
    GiveUp(*choice);
    if (connections.size() < before) return true;
  }
}

// The peer's next write fails before its first byte, and what it wrote before is still served.
void HostReceiver::GiveUp(HostConnection& connection) {
  shutdown(connection.descriptor, SHUT_RD);
  const uint32_t number = connection.number;
  while (Find(number) != nullptr && !connection.ended && !connection.paused &&
         !connection.in.HasCompleteFrame()) {
    Read(connection);
  }
  if (Find(number) == nullptr) return;
  connection.ended = true;
  UpdateInterest(connection);
  DropIfFinished(connection);
}

// Reading.

void HostReceiver::SetInterest(HostConnection& connection, uint32_t interest) {
  if (interest == connection.interest) return;
  for (const Watcher& watcher : watchers) {
    ChangeEpoll(watcher.epollSet, connection.descriptor, EventData(watcher.tag, connection.number),
                connection.interest, interest);
  }
  connection.interest = interest;
}

void HostReceiver::UpdateInterest(HostConnection& connection) {
  const bool held = connection.waitsFor != 0 && connection.in.HasCompleteFrame();
  const bool read = !connection.ended && !connection.paused && !held;
  SetInterest(connection, (read ? EPOLLIN : 0u) | (connection.out.IsEmpty() ? 0u : EPOLLOUT));
}

void HostReceiver::Read(HostConnection& connection) {
  if (connection.ended || connection.in.HasCompleteFrame()) return;
  if (!MayReadOn(connection)) return Pause(connection);
  const ssize_t size = connection.in.Receive(connection.descriptor, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0 && errno == ENOMEM) return Pause(connection);
  if (size < 0 && errno != ECONNRESET) {
    Drop(connection);
    return;
  }
  if (size > 0) {
    connection.lastActivity = ++activity;
  } else {
    connection.ended = true;
  }
  AfterRead(connection);
}

// What it sends is left where it is for a moment.
void HostReceiver::Pause(HostConnection& connection) {
  connection.paused = true;
  pausedConnections++;
  retryAt = std::min(retryAt, HostNow() + kRetryAfter);
  UpdateInterest(connection);
  UpdateDeadline();
}

void HostReceiver::AfterRead(HostConnection& connection) {
  Identify(connection);
  if (connection.in.HasCompleteFrame()) {
    MakeReady(connection);
  } else if (connection.in.IsBad()) {
    Drop(connection);
    return;
  }
  TrackPartial(connection);
  UpdateInterest(connection);
  DropIfFinished(connection);
}

// A thread that closed a connection and made another must still be heard in its order: the younger
// waits until the older is drained.
void HostReceiver::Identify(HostConnection& connection) {
  HostFrameHeader header;
  if (connection.identified || !connection.in.Peek(&header)) return;
  connection.identified = true;
  connection.sender = header.sender;
  if (connection.sender == 0) return;
  HostConnection* before = nullptr;
  for (const auto& [number, other] : connections) {
    if (other->sender != connection.sender || other->peer.pid != connection.peer.pid ||
        other->acceptOrder >= connection.acceptOrder) {
      continue;
    }
    if (before == nullptr || other->acceptOrder > before->acceptOrder) before = other.get();
  }
  if (before == nullptr) return;
  connection.waitsFor = before->number;
  before->isWaitedFor = true;
}

void HostReceiver::MakeReady(HostConnection& connection) {
  if (connection.isReady || connection.waitsFor != 0) return;
  ready.Append(connection);
  UpdateWaiting();
}

void HostReceiver::UpdateWaiting() {
  messagesWait.store(!ready.IsEmpty() || !local.empty(), std::memory_order_release);
}

bool HostReceiver::TakeMessage(HostMessage* message) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return false;
  bool taken = false;
  while (!taken && (!ready.IsEmpty() || !local.empty())) {
    if (!local.empty() && (localTurn || ready.IsEmpty())) {
      taken = TakeLocal(message);
      continue;
    }
    taken = TakeFrom(ready.TakeFirst(), message);
    localTurn = true;
  }
  UpdateWaiting();
  return taken;
}

bool HostReceiver::TakeLocal(HostMessage* message) {
  LocalMessage& first = local.front();
  message->header = first.header;
  message->body = std::move(first.body);
  message->connection = 0;
  message->waiter = std::move(first.waiter);
  localBytes -= message->body.size;
  local.pop_front();
  localTurn = false;
  return true;
}

bool HostReceiver::TakeFrom(HostConnection& connection, HostMessage* message) {
  const HostFrameReader::Next next = connection.in.Take(&message->header, &message->body);
  if (next != HostFrameReader::Next::kFrame || message->header.kind != HostFrameKind::kRequest) {
    Drop(connection);
    return false;
  }
  message->connection = connection.number;
  message->waiter = nullptr;
  connection.dispatching++;
  if (connection.in.HasCompleteFrame()) {
    MakeReady(connection);
  } else if (connection.in.IsBad()) {
    connection.ended = true;
    UpdateInterest(connection);
  }
  TrackPartial(connection);
  return true;
}

void HostReceiver::FinishMessage(const HostMessage& message) {
  if (IsForeign()) return;
  const std::lock_guard<HostMutex> lock(mutex);
  if (message.waiter != nullptr) {
    waitersToCome--;
    // May still be answered, but not by a port that is no more.
    std::erase_if(unanswered, [](const auto& waiter) { return waiter.expired(); });
    if (IsDestroyed()) {
      message.waiter->Abandon();
    } else {
      unanswered.push_back(message.waiter);
    }
  }
  HostConnection* connection = Find(message.connection);
  if (connection == nullptr) return;
  connection->dispatching--;
  if (!IsDestroyed()) {
    DropIfFinished(*connection);
  } else if (connection->dispatching == 0) {
    FlushUntil(*connection, destroyEnd);
    Drop(*connection);
  }
}

// Ending connections.

void HostReceiver::Drop(HostConnection& connection) {
  SetInterest(connection, 0);
  HostCloseDescriptor(connection.descriptor);
  connection.ended = true;
  connection.in = HostFrameReader();
  connection.out = HostOutQueue();
  TrackPartial(connection);
  CountQueued(connection);
  if (connection.paused) pausedConnections--;
  if (connection.replyRight != MACH_PORT_NULL) HostRemoveReplyRight(connection.replyRight);

  ready.Remove(connection);
  const uint32_t number = connection.number;
  const bool wasWaitedFor = connection.isWaitedFor;
  if (found == &connection) found = nullptr;
  connections.erase(number);
  if (listenerPaused && !IsDestroyed()) {
    listenerPaused = false;
    WatchListener(true);
  }
  if (!wasWaitedFor) return;
  for (const auto& [other, follower] : connections) {
    if (follower->waitsFor != number) continue;
    follower->waitsFor = 0;
    if (follower->in.HasCompleteFrame()) MakeReady(*follower);
    UpdateInterest(*follower);
  }
}

bool HostReceiver::DropIfFinished(HostConnection& connection) {
  if (!connection.ended || connection.dispatching > 0 || !connection.out.IsEmpty() ||
      connection.in.HasCompleteFrame()) {
    return false;
  }
  Drop(connection);
  return true;
}

void HostReceiver::Destroy() {
  if (IsForeign()) return;
  const std::lock_guard<HostMutex> lock(mutex);
  if (destroyed.exchange(true, std::memory_order_acq_rel)) return;
  destroyEnd = HostDeadlineAfter(HostNow(), kDestroyGrace);
  for (const Claim& claim : claims) HostReleaseName(claim.service.c_str(), claim.descriptor);
  claims.clear();
  CloseSocket();
  for (const LocalMessage& message : local) {
    if (message.waiter != nullptr) message.waiter->Abandon();
  }
  for (const auto& waiter : unanswered) {
    if (const auto asker = waiter.lock()) asker->Abandon();
  }
  local.clear();
  unanswered.clear();
  ready.Clear();
  messagesWait.store(false, std::memory_order_release);
  deadline.store(kHostNever, std::memory_order_relaxed);

  for (const auto& [number, connection] : connections) SetInterest(*connection, 0);
  for (auto place = connections.begin(); place != connections.end();) {
    HostConnection& connection = *(place++)->second;  // dropping one leaves the others in place
    if (connection.dispatching > 0) continue;
    FlushUntil(connection, destroyEnd);
    Drop(connection);
  }
  watchers.clear();
}

HostReceiver::Counts HostReceiver::Count() {
  const std::lock_guard<HostMutex> lock(mutex);
  Counts counts;
  counts.connections = connections.size();
  counts.hasSocket = listener >= 0;
  for (const auto& [number, connection] : connections) {
    counts.queuedBytes += connection->countedQueued;
    counts.partialBytes += connection->countedPartial;
  }
  return counts;
}

// Bounds on what is partly received.

void HostReceiver::TrackPartial(HostConnection& connection) {
  const size_t size = connection.ended ? 0 : connection.in.PartialBytes();
  if (size == 0 && connection.countedPartial == 0) return;
  sPartialInAll.fetch_add(size - connection.countedPartial, std::memory_order_relaxed);
  connection.countedPartial = size;
  if (size > 0 && connection.partialSince == 0) {
    connection.partialSince = HostNow();
    partialConnections++;
    const int64_t end = connection.partialSince + kPartialAge;
    if (end < Deadline()) deadline.store(end, std::memory_order_relaxed);
  } else if (size == 0 && connection.partialSince != 0) {
    connection.partialSince = 0;
    if (--partialConnections == 0) UpdateDeadline();
  }
}

// Beyond the limit only the frame that began first is read on, so that one after the other ends.
bool HostReceiver::MayReadOn(const HostConnection& connection) const {
  if (sPartialInAll.load(std::memory_order_relaxed) <= kPartialInAll ||
      connection.countedPartial < kPartialAlways) {
    return true;
  }
  return std::none_of(connections.begin(), connections.end(), [&connection](const auto& entry) {
    const HostConnection& other = *entry.second;
    return other.countedPartial >= kPartialAlways && other.partialSince < connection.partialSince;
  });
}
