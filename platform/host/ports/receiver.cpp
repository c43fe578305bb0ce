// The server's end of connections. Each part has its rules in its header; this is how they work
// together.
//
// Reading. A connection is read while it has no complete frame. A complete frame puts it in line
// (turns.h); when its turn comes, the frame is handed out and the connection is read again. Bytes
// that arrive while a frame waits stay in the socket or the lane. The end of the stream counts only
// when everything before it has been served.
//
// Lanes. Complete frames of lanes stand in the same line. Replies go by the socket until the client
// has begun to use the lane and all replies that were queued before have been written. A connection
// with a lane ends when its client has hung up and the lane is empty.
//
// Retries. Some things are tried again 50 ms later: accepting, when file descriptors are short, and
// reading on, when the intake refuses or memory is short. The receiver's deadline is the earliest
// of that retry and the moment when an incomplete frame becomes 30 s old and its connection is
// dropped.
//
// Limits. At most 64 connections have lanes, and a lane is read kReadsPerVisit times before the
// next one is. A connection has 8 MiB of waiting replies at most; all other limits are the
// intake's.
//
// Locks. A public function takes `mutex` once and releases it before it calls anything that may
// close connections of other receivers: HostIntake::Relieve and FreeDescriptor.

#include "platform/host/ports/receiver.h"

#include <CoreServices/MacErrors.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <cassert>
#include <cerrno>

#include <algorithm>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/ports/port_table.h"

namespace {

constexpr int kAcceptsPerEvent = 64;
constexpr int64_t kPartialAge = 30 * kHostSecond;
constexpr int64_t kRetryAfter = 50 * kHostMillisecond;
constexpr int64_t kUnreadAge = kHostSecond;  // unread replies this old make a connection silent
constexpr int64_t kDestroyGrace = kHostSecond;
constexpr int kReadsPerVisit = 8;  // of a lane, each of as much as its ring holds
constexpr int kBriefWaits = 16;    // for the rest of a frame, before the sockets are polled

// Counts the reads and connections of all receivers: a larger number is a later sign of life.
constinit std::atomic<uint64_t> sActivity{0};

// Two threads may get the same number: that does no harm and costs less than counting exactly.
uint64_t NextActivity() {
  const uint64_t next = sActivity.load(std::memory_order_relaxed) + 1;
  sActivity.store(next, std::memory_order_relaxed);
  return next;
}

}  // namespace

HostReceiver::HostReceiver(mach_port_t portName)
    : name(portName),
      generation(HostForkGeneration()),
      intake(HostIntake::OfThisProcess()),
      deadline(kHostNever),
      lanes(interest),
      output(intake),
      retryAt(kHostNever),
      destroyEnd(kHostNever) {}

HostReceiver::~HostReceiver() { Destroy(); }

bool HostReceiver::IsForeign() const { return generation != HostForkGeneration(); }

// Handling one message looks its connection up several times, so the last one found is kept.
HostConnection* HostReceiver::Find(uint32_t number) {
  mutex.AssertHeld();
  if (found != nullptr && found->number == number) return found;
  const auto place = connections.find(number);
  if (place == connections.end()) return nullptr;
  found = place->second.get();
  return found;
}

// Names and the socket.

kern_return_t HostReceiver::Register(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return KERN_INVALID_RIGHT;
  const bool hadSocket = endpoint.Listener() >= 0;
  if (!hadSocket) intake.Join(std::shared_ptr<HostIntakeMember>(shared_from_this(), this));
  const kern_return_t err = endpoint.Register(service);
  if (hadSocket) return err;
  if (err != 0) {
    intake.Leave(this);
  } else {
    listenerPaused = true;
    ResumeListener();
  }
  return err;
}

bool HostReceiver::IsRegisteredAs(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  return endpoint.IsRegisteredAs(service);
}

bool HostReceiver::Unregister(const char* service) {
  const std::lock_guard<HostMutex> lock(mutex);
  return !IsForeign() && endpoint.Unregister(service);
}

// Run loops.

void HostReceiver::Watch(int epollSet, uint32_t tag, int wakeDescriptor) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return;
  const HostInterest::Watcher watcher = {epollSet, tag, wakeDescriptor};
  interest.Add(watcher);
  if (endpoint.Listener() >= 0 && !listenerPaused &&
      !HostInterest::ChangeIn(watcher, endpoint.Listener(), 0, 0, EPOLLIN)) {
    PauseListener();
  }
  const bool hasDoorbell = lanes.Watch(watcher, true);
  for (const auto& [number, connection] : connections) {
    if (HostInterest::ChangeIn(watcher, connection->descriptor, number, 0, connection->interest) &&
        (hasDoorbell || connection->lane == nullptr)) {
      continue;
    }
    connection->ended = true;  // as in UpdateInterest
    output.Discard(*connection);
    RetrySoon();
  }
}

void HostReceiver::Unwatch(int epollSet) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || !interest.Remove(epollSet)) return;
  const HostInterest::Watcher watcher = {epollSet, 0, -1};
  if (endpoint.Listener() >= 0 && !listenerPaused) {
    HostInterest::ChangeIn(watcher, endpoint.Listener(), 0, EPOLLIN, 0);
  }
  lanes.Watch(watcher, false);
  for (const auto& [number, connection] : connections) {
    HostInterest::ChangeIn(watcher, connection->descriptor, 0, connection->interest, 0);
  }
}

bool HostReceiver::WatchListener(bool on) {
  const uint32_t readable = EPOLLIN;
  return interest.Change(endpoint.Listener(), 0, on ? 0 : readable, on ? readable : 0);
}

// Stops watching the listener until the next retry: it would report itself readable without end.
void HostReceiver::PauseListener() {
  if (!listenerPaused) WatchListener(false);
  listenerPaused = true;
  RetrySoon();
}

void HostReceiver::ResumeListener() {
  if (!listenerPaused || endpoint.Listener() < 0) return;
  listenerPaused = !WatchListener(true);
  if (listenerPaused) RetrySoon();
}

void HostReceiver::HandleEvent(uint32_t number, uint32_t events) {
  if (number == 0) return AcceptAll();
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign() || IsDestroyed()) return;
    if (HostReceiverLanes::IsDoorbell(number)) VisitLanes();
    HostConnection* connection = Find(number);
    if (connection == nullptr) return;
    if ((events & EPOLLOUT) != 0) {
      const int error = output.Flush(*connection);
      // A peer that has gone reads nothing more; what it sent before is still to be read.
      if (error != 0 && error != EAGAIN) output.Discard(*connection);
      UpdateInterest(*connection);
      if (DropIfFinished(*connection)) return;
    }
    if ((events & ~uint32_t{EPOLLOUT}) != 0) {
      connection->readsLane ? LookAtSocket(*connection) : Read(*connection);
    }
  }
  intake.Relieve();
}

bool HostReceiver::PrepareToSleep(int epollSet) {
  if (!lanes.IsOpen()) return HasMessages();
  bool isMoreToCome = false;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign() || IsDestroyed() || !lanes.IsOpen()) return HasMessages();
    for (int i = 0; i < kBriefWaits && !HasMessages() && lanes.AwaitRest(); i++) VisitLanes();
    if (!HasMessages() && lanes.IsOpen()) lanes.ReportSleep(epollSet);
    isMoreToCome = VisitLanes() || HasMessages();
    if (isMoreToCome) lanes.RevokeSleep(epollSet);
  }
  intake.Relieve();
  return isMoreToCome;
}

void HostReceiver::WakeUp(int epollSet) {
  if (!lanes.IsOpen()) return;
  const std::lock_guard<HostMutex> lock(mutex);
  if (!IsForeign()) lanes.ReportWakeUp(epollSet);
}

void HostReceiver::HandleDeadline(int64_t now) {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign() || IsDestroyed()) return;
    for (auto place = connections.begin(); place != connections.end();) {
      HostConnection& connection = *(place++)->second;  // dropping one leaves the others in place
      const int64_t since = connection.account.partialSince;
      if (since != 0 && since + kPartialAge <= now) {
        Drop(connection);
      } else if (retryAt <= now) {
        connection.paused = false;
        UpdateInterest(connection);
        DropIfFinished(connection);
      }
    }
    if (retryAt <= now) {
      retryAt = kHostNever;
      ResumeListener();
    }
    UpdateDeadline();
  }
  intake.Relieve();
}

void HostReceiver::RetrySoon() {
  retryAt = std::min(retryAt, HostNow() + kRetryAfter);
  if (retryAt < Deadline()) deadline.store(retryAt, std::memory_order_relaxed);
}

void HostReceiver::UpdateDeadline() {
  int64_t earliest = retryAt;
  if (partialConnections > 0) {
    for (const auto& [number, connection] : connections) {
      const int64_t since = connection->account.partialSince;
      if (since != 0) earliest = std::min(earliest, since + kPartialAge);
    }
  }
  deadline.store(earliest, std::memory_order_relaxed);
}

// Accepting.

void HostReceiver::AcceptAll() {
  for (int i = 0; i < kAcceptsPerEvent; i++) {
    switch (AcceptOne()) {
      case HostEndpoint::Outcome::kNobody:
        return;
      case HostEndpoint::Outcome::kShortage:
        // The connection that is given up may belong to another receiver, so no lock is held here.
        if (intake.FreeDescriptor()) continue;
        [[fallthrough]];
      case HostEndpoint::Outcome::kFailure: {
        const std::lock_guard<HostMutex> lock(mutex);
        if (!IsForeign() && !IsDestroyed()) PauseListener();
        return;
      }
      case HostEndpoint::Outcome::kAccepted:
      case HostEndpoint::Outcome::kRefused:
      case HostEndpoint::Outcome::kAgain:
        continue;
    }
  }
}

HostEndpoint::Outcome HostReceiver::AcceptOne() {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed() || endpoint.Listener() < 0) {
    return HostEndpoint::Outcome::kNobody;
  }
  if (!MakeSpare()) return HostEndpoint::Outcome::kFailure;
  int fd = -1;
  HostPeer peer;
  const HostEndpoint::Outcome outcome = endpoint.Accept(&fd, &peer);
  if (outcome == HostEndpoint::Outcome::kAccepted) Admit(fd, peer);
  return outcome;
}

// Makes room for one connection before it is accepted. A client that waits in the backlog notices
// nothing; one whose connection is accepted and closed again takes the server for dead.
bool HostReceiver::MakeSpare() {
  if (!spare.empty()) return true;
  return HostGuard([this] {
    HostConnectionMap made;
    made.emplace(0, std::make_unique<HostConnection>());
    connections.reserve(connections.size() + 1);
    spare = made.extract(made.begin());
  });
}

void HostReceiver::Admit(int fd, const HostPeer& peer) {
  mutex.AssertHeld();
  assert(!spare.empty() && fd >= 0);
  HostWidenSocket(fd);
  do {
    lastConnection++;
  } while (lastConnection == 0 || HostReceiverLanes::IsDoorbell(lastConnection) ||
           connections.contains(lastConnection));
  HostConnection& admitted = *spare.mapped();
  admitted.number = lastConnection;
  admitted.acceptOrder = ++acceptCount;
  admitted.descriptor = fd;
  admitted.peer = peer;
  admitted.lastActivity = NextActivity();
  admitted.account.member = this;
  admitted.account.number = lastConnection;
  admitted.account.pid = peer.pid;
  spare.key() = lastConnection;
  connections.insert(std::move(spare));
  UpdateInterest(admitted);
  DropIfFinished(admitted);
}

// Giving connections up.

void HostReceiver::Survey(std::vector<HostCandidate>* candidates) {
  const std::lock_guard<HostMutex> lock(mutex);
  const std::shared_ptr<HostIntakeMember> self(shared_from_this(), this);
  const int64_t now = HostNow();
  for (const auto& [number, connection] : connections) {
    HostWorth worth = HostWorth::kSilent;
    if (connection->HasRequest()) {
      worth = HostWorth::kHandled;
    } else if (!connection->out.IsEmpty()) {
      // The peer may have read since this process last looked.
      if (now - connection->account.queuedSince >= kUnreadAge) output.Flush(*connection);
      const bool isRead = now - connection->account.queuedSince < kUnreadAge;
      if (isRead) worth = HostWorth::kBusy;
    }
    candidates->push_back({self, number, connection->peer.pid, worth, connection->lastActivity});
  }
}

void HostReceiver::DropHolder(uint32_t number) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (HostConnection* connection = Find(number)) Drop(*connection);
}

// Shuts the connection down for reading: the peer's next write fails before its first byte, and
// what it wrote before is still served.
bool HostReceiver::GiveUp(uint32_t number, HostWorth worth) {
  const std::lock_guard<HostMutex> lock(mutex);
  HostConnection* connection = Find(number);
  if (connection == nullptr || IsDestroyed()) return false;
  if (worth == HostWorth::kHandled) {
    Drop(*connection);
    return true;
  }
  if (connection->HasRequest()) return false;  // one has come meanwhile
  output.Discard(*connection);
  shutdown(connection->descriptor, SHUT_RD);
  if (connection->lane != nullptr) {
    connection->lane->Close();
    connection->hungUp = connection->readsLane;  // else the rest of the socket comes first
  }
  while (Find(number) != nullptr && !connection->ended && !connection->paused &&
         !connection->HasFrame()) {
    Read(*connection);
  }
  if (Find(number) == nullptr) return true;
  connection->ended = connection->lane == nullptr;  // else when the lane has been emptied
  TrackPartial(*connection);
  UpdateInterest(*connection);
  return DropIfFinished(*connection);
}

// Reading.

// A connection that a run loop cannot watch has ended. What it has received is served, and its peer
// learns from the closed connection that nothing more will be.
void HostReceiver::UpdateInterest(HostConnection& connection) {
  const bool held = connection.waitsFor != 0 && connection.HasFrame();
  // The socket of a connection that has moved is watched for its end alone, so also while frames
  // wait.
  const bool read = !connection.ended && !connection.hungUp &&
                    (connection.readsLane || (!connection.paused && !held));
  const bool write = !connection.out.IsEmpty() && !connection.writesLane;
  const uint32_t wanted = (read ? EPOLLIN : 0u) | (write ? uint32_t{EPOLLOUT} : 0u);
  if (wanted == connection.interest) return;
  if (interest.Change(connection.descriptor, connection.number, connection.interest, wanted)) {
    connection.interest = wanted;
    return;
  }
  connection.interest = 0;
  connection.ended = true;
  output.Discard(connection);
}

// Stops reading the connection until the next retry.
void HostReceiver::Pause(HostConnection& connection) {
  connection.paused = true;
  UpdateInterest(connection);
  RetrySoon();
}

void HostReceiver::Read(HostConnection& connection) {
  if (connection.ended || connection.HasFrame()) return;
  if (!intake.MayReadOn(connection.account)) return Pause(connection);
  const ssize_t size = connection.Receive();
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0 && errno == ENOMEM) return Pause(connection);
  if (size < 0 && errno != ECONNRESET) return Drop(connection);
  if (size > 0) {
    connection.lastActivity = NextActivity();
  } else {
    connection.ended = true;
  }
  AfterRead(connection);
}

void HostReceiver::AfterRead(HostConnection& connection) {
  turns.Identify(connection, connections);
  if (!connection.HasFrame() && connection.in.IsBad()) return Drop(connection);
  turns.Offer(connection);
  TrackPartial(connection);
  UpdateInterest(connection);
  DropIfFinished(connection);
}

bool HostReceiver::TakeMessage(HostMessage* message) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return false;
  HostConnection* connection = nullptr;
  while (turns.Next(&connection, message)) {
    if (connection == nullptr || TakeFrom(*connection, message)) return true;
  }
  return false;
}

bool HostReceiver::TakeFrom(HostConnection& connection, HostMessage* message) {
  assert(!connection.isReady && connection.HasFrame() && connection.waitsFor == 0);
  if (!connection.TakeFrame(&message->header, &message->body)) {
    Drop(connection);
    return false;
  }
  const bool isOffer = message->header.kind == HostFrameKind::kLaneOffer;
  if (isOffer && !DecideOffer(connection)) {
    Drop(connection);
    return false;
  }
  message->connection = connection.number;
  message->waiter = nullptr;
  if (!isOffer) connection.dispatching++;
  turns.Offer(connection);
  if (!connection.HasFrame() && connection.in.IsBad()) {
    connection.ended = true;
    UpdateInterest(connection);
  }
  TrackPartial(connection);
  if (isOffer) DropIfFinished(connection);
  return !isOffer;
}

void HostReceiver::FinishMessage(const HostMessage& message) {
  if (IsForeign()) return;
  const std::lock_guard<HostMutex> lock(mutex);
  if (message.waiter != nullptr) {
    waitersToCome--;
    // The reply may still come, unless the port has gone.
    std::erase_if(repliesDue, [](const auto& waiter) { return waiter.expired(); });
    if (IsDestroyed()) {
      message.waiter->Abandon();
    } else {
      repliesDue.push_back(message.waiter);
    }
  }
  HostConnection* connection = Find(message.connection);
  if (connection == nullptr) return;
  assert(connection->dispatching > 0);
  connection->dispatching--;
  if (!IsDestroyed()) {
    DropIfFinished(*connection);
  } else if (connection->dispatching == 0) {
    output.FlushUntil(*connection, destroyEnd, lanes);
    Drop(*connection);
  }
}

// Lanes.

// Returns whether there is more that can be read at once.
bool HostReceiver::VisitLanes() {
  mutex.AssertHeld();
  bool isMore = false;
  for (HostConnection* each = lanes.FirstVisit(); each != nullptr; each = lanes.NextVisit()) {
    isMore |= Visit(*each);
  }
  return isMore;
}

bool HostReceiver::Visit(HostConnection& connection) {
  const uint32_t number = connection.number;
  if (connection.writesLane && !connection.out.IsEmpty()) {
    if (connection.hungUp) output.Discard(connection);  // its client does not read them any more
    const int error = output.Flush(connection);
    if (error != 0 && error != EAGAIN) return Drop(connection), false;
    if (DropIfFinished(connection)) return false;
  }
  for (int i = 0;; i++) {
    if (connection.ended || connection.paused || connection.HasFrame()) return false;
    if (!connection.hungUp && !connection.lane->HasBytes()) return false;
    if (i == kReadsPerVisit) return true;
    Read(connection);
    if (Find(number) == nullptr) return false;
  }
}

// Reads the socket of a connection that has moved to its lane: nothing may come by it but its end.
void HostReceiver::LookAtSocket(HostConnection& connection) {
  char byte;
  const ssize_t size = recv(connection.descriptor, &byte, sizeof byte, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size > 0 || (size < 0 && errno != ECONNRESET)) return Drop(connection);
  connection.hungUp = true;
  output.Discard(connection);
  UpdateInterest(connection);
  Visit(connection);
}

// Accepts or declines an offer. Returns false if the connection is to be dropped: what was offered
// is not a lane, or there is no memory for declining it.
bool HostReceiver::DecideOffer(HostConnection& connection) {
  connection.in.SetPassing(HostFrameReader::Passing::kRefuse);  // there is one offer
  const int error = HostGuard(int{ENOMEM}, [&] { return lanes.Accept(connection); });
  if (error == EBADMSG) return false;
  if (error == 0) return true;
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneDeclined;
  uint8_t frame[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, frame);
  const iovec piece = {frame, sizeof frame};
  if (output.Write(connection, {&piece, 1}) == HostReceiverOutput::Outcome::kNoMemory) return false;
  UpdateInterest(connection);
  return true;
}

// Writing.

OSStatus HostReceiver::PostLocal(const HostFrameHeader& header, HostGather& frame,
                                 std::shared_ptr<HostLocalWaiter> waiter) {
  HostMessage message;
  message.header = header;
  message.body = HostCopyFrameBody(frame);
  if (!message.body.owner) return memFullErr;
  message.waiter = std::move(waiter);
  const bool isWaitedFor = message.waiter != nullptr;

  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return connectionInvalid;
  if (isWaitedFor) {
    std::erase_if(repliesDue, [](const auto& each) { return each.expired(); });
    repliesDue.reserve(repliesDue.size() + waitersToCome + 1);
  }
  if (!turns.Post(std::move(message))) return errAETimeout;
  waitersToCome += isWaitedFor ? 1 : 0;
  interest.Wake();
  return 0;
}

OSStatus HostReceiver::Reply(uint32_t number, mach_port_t right, std::span<const iovec> pieces) {
  using Outcome = HostReceiverOutput::Outcome;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign()) return connectionInvalid;
    HostConnection* connection = Find(number);
    if (connection == nullptr) return connectionInvalid;
    if (connection->replyRight == right) connection->replyRight = MACH_PORT_NULL;
    switch (output.Write(*connection, pieces)) {
      case Outcome::kWritten:
        return 0;
      case Outcome::kLost:
        return connectionInvalid;
      case Outcome::kBroken:
        return Drop(*connection), connectionInvalid;
      case Outcome::kNoMemory:
        return Drop(*connection), memFullErr;
      case Outcome::kTooMuch:
        return Drop(*connection), 0;
      case Outcome::kQueued:
        break;
    }
    UpdateInterest(*connection);
    DropIfFinished(*connection);
  }
  intake.Relieve();
  return 0;
}

mach_port_t HostReceiver::ExchangeReplyRight(uint32_t number, mach_port_t right) {
  const std::lock_guard<HostMutex> lock(mutex);
  HostConnection* connection = IsForeign() ? nullptr : Find(number);
  if (connection == nullptr) return right;
  return std::exchange(connection->replyRight, right);
}

// Ending connections.

void HostReceiver::Drop(HostConnection& connection) {
  mutex.AssertHeld();
  interest.Change(connection.descriptor, connection.number, connection.interest, 0);
  HostCloseDescriptor(connection.descriptor);
  connection.interest = 0;
  connection.ended = true;
  connection.in = HostFrameReader();
  TrackPartial(connection);
  output.Discard(connection);
  if (connection.replyRight != MACH_PORT_NULL) HostRemoveReplyRight(connection.replyRight);

  turns.Remove(connection);
  lanes.Leave(connection);
  const uint32_t number = connection.number;
  const bool wasWaitedFor = connection.isWaitedFor;
  if (found == &connection) found = nullptr;
  connections.erase(number);
  if (!IsDestroyed()) ResumeListener();
  if (!wasWaitedFor || IsDestroyed()) return;
  for (const auto& [other, follower] : connections) {
    if (follower->waitsFor != number) continue;
    turns.Unhold(*follower);
    UpdateInterest(*follower);
    // A caller may be iterating over the connections, so one that has ended is dropped later.
    if (follower->ended) RetrySoon();
  }
}

bool HostReceiver::DropIfFinished(HostConnection& connection) {
  if (!connection.ended || connection.dispatching > 0 || !connection.out.IsEmpty() ||
      connection.HasFrame()) {
    return false;
  }
  Drop(connection);
  return true;
}

void HostReceiver::Destroy() {
  if (IsForeign()) return;
  intake.Leave(this);
  const std::lock_guard<HostMutex> lock(mutex);
  if (destroyed.exchange(true, std::memory_order_acq_rel)) return;
  destroyEnd = HostDeadlineAfter(HostNow(), kDestroyGrace);
  if (endpoint.Listener() >= 0 && !listenerPaused) WatchListener(false);
  endpoint.Close();
  turns.End();
  for (const auto& waiter : repliesDue) {
    if (const auto thread = waiter.lock()) thread->Abandon();
  }
  repliesDue.clear();
  deadline.store(kHostNever, std::memory_order_relaxed);

  for (const auto& [number, connection] : connections) {
    interest.Change(connection->descriptor, number, connection->interest, 0);
    connection->interest = 0;
  }
  lanes.UnwatchAll();
  interest.RemoveAll();
  for (auto place = connections.begin(); place != connections.end();) {
    HostConnection& connection = *(place++)->second;  // dropping one leaves the others in place
    if (connection.dispatching > 0) continue;
    output.FlushUntil(connection, destroyEnd, lanes);
    Drop(connection);
  }
}

HostPortObject::Counts HostReceiver::Count() {
  const std::lock_guard<HostMutex> lock(mutex);
  return {connections.size(), lanes.CountUsed(), endpoint.Listener() >= 0};
}

// Reports to the intake how much of an incomplete frame the connection holds.
void HostReceiver::TrackPartial(HostConnection& connection) {
  const size_t size = connection.ended ? 0 : connection.in.PartialBytes();
  const bool hadPartial = connection.account.partialSince != 0;
  if (size == 0 && !hadPartial) return;
  intake.SetPartial(connection.account, size);
  if (size > 0 && !hadPartial) {
    partialConnections++;
    const int64_t end = connection.account.partialSince + kPartialAge;
    if (end < Deadline()) deadline.store(end, std::memory_order_relaxed);
  } else if (size == 0 && --partialConnections == 0) {
    UpdateDeadline();
  }
}

std::shared_ptr<HostPortObject> HostMakeReceiver(mach_port_t name) {
  return std::make_shared<HostReceiver>(name);
}

std::shared_ptr<HostReceiver> HostReceiverOf(mach_port_t name) {
  // The table holds only objects that HostMakeReceiver has made.
  return std::static_pointer_cast<HostReceiver>(HostPortObjectOf(name));
}
