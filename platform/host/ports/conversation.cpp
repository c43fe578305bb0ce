#include "platform/host/ports/conversation.h"

#include <CoreServices/MacErrors.h>

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/thread_object.h"
#include "platform/host/ports/lane_client.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/session/port_address.h"
#include "platform/host/wire/frame_stream.h"

// The client's end of connections. Everything here belongs to one thread, so there are no locks.
//
// States of a conversation. Closed -> open (connect) -> closed (the peer hung up, sent something
// that is not a frame, or the slot is needed). An open one may have an unfinished frame: the rest
// of a frame whose time-out passed in the middle of it. It is written before anything else, so the
// frames of a thread arrive at a port in order, and a time-out never breaks a connection.
//
// A request. The frame is written; while there is no room, the thread reads and drops what arrives,
// because the server may be unable to take more until its own replies are read. Then it reads until
// a reply with the request's own number has come. Every other reply belongs to a request that has
// timed out, and is dropped. After each receive and each wait the clock is read, so the time-out
// holds whatever the server sends.
//
// Lanes. After its kFramesBeforeLane-th frame, or before its first large one, a connection offers a
// lane (lane.h). Until the acceptance has been read, everything goes by the socket; a frame that
// was begun there is finished there, and from the next one on the thread writes to the lane only.
// The server writes to the lane from then on, too, but replies that it had queued before still come
// by the socket, so the thread reads both.
//
//   none --offer sent--> offered --accepted--> accepted --next frame--> in use
//   offered --declined--> never again on this connection
//   none --no lane can be had now--> none; the next offer comes after as many frames again
//
// Loss. A server never dispatches a frame that has not arrived whole. So if the connection breaks
// before that, as it does when a server gives up an idle one, the frame is sent once more on a new
// connection. If a new connection breaks as well, or the whole frame had been written, the result
// is connectionInvalid. A frame has left a lane when the server has taken all of it.
//
// Limits. A thread has at most kConnectionsPerThread connections. A new one replaces one that has
// hung up, else the one used least recently, if possible one without an unfinished frame.

namespace {

constexpr size_t kConnectionsPerThread = 8;
// A socket's receive time-out is set again when it differs from the time left by more than this.
constexpr int64_t kTimeoutSlack = 40 * kHostMillisecond;
// How often a thread that waits for room reads before it looks at the clock and at the room again.
constexpr int kReceivesPerLook = 8;
// When a lane is offered.
constexpr uint64_t kFramesBeforeLane = 16;
constexpr size_t kLargeFrame = size_t{16} << 10;

uint64_t RandomNumber() {
  uint64_t number = 0;
  while (getrandom(&number, sizeof number, 0) != sizeof number || number == 0) {
  }
  return number;
}

// Random numbers, drawn from the kernel many at a time.
class RequestNumbers {
 public:
  uint64_t Next() {
    if (left == 0) {
      while (getrandom(numbers.data(), sizeof numbers, 0) != sizeof numbers) {
      }
      left = numbers.size();
    }
    return numbers[--left];
  }

 private:
  std::array<uint64_t, 32> numbers;  // a signal never cuts a call of up to 256 bytes short
  size_t left = 0;
};

timeval TimevalOf(int64_t nanoseconds) {
  timeval time = {};
  time.tv_sec = static_cast<time_t>(nanoseconds / kHostSecond);
  time.tv_usec = static_cast<suseconds_t>(nanoseconds % kHostSecond / 1000);
  return time;
}

// Returns the nanoseconds until `deadline` as a socket's time-out, in which 0 means for ever.
int64_t TimeLeft(int64_t deadline) {
  return deadline == kHostNever ? 0 : std::max(deadline - HostNow(), kHostMillisecond);
}

// The end of a call's time-out. Reads the clock on the first use only, because most sends never
// wait.
class TimeLimit {
 public:
  explicit TimeLimit(int64_t nanoseconds) : timeout(nanoseconds) {}

  int64_t Deadline() {
    if (deadline == 0) {
      deadline = timeout == kHostNever ? kHostNever : HostDeadlineAfter(HostNow(), timeout);
    }
    return deadline;
  }

 private:
  const int64_t timeout;
  int64_t deadline = 0;
};

bool IsLost(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

// One connection of this thread.
class Conversation {
 public:
  Conversation() = default;
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;
  ~Conversation() { Close(); }

  bool IsOpen() const { return descriptor >= 0; }
  bool IsTo(uint64_t port) const { return IsOpen() && portID == port; }
  bool HasUnfinished() const { return !unfinished.IsEmpty(); }
  bool HasHungUp() const;

  OSStatus Open(uint64_t port, TimeLimit* limit);
  void Close();
  void Forget() {  // in a forked child, where the file descriptor has been closed already
    descriptor = -1;
    Close();
  }

  // Offers a lane if it is time for it, or looks whether the server has decided on the offer.
  // `size` is the size of the next frame.
  void ConsiderLane(size_t size, uint64_t sender);
  // Returns the results of HostConverse. Sets `*lost` if the connection broke before the frame was
  // written.
  OSStatus Send(const std::vector<iovec>& pieces, TimeLimit* limit, bool* lost);
  // Called after the frame of a request without a reply: finds out whether it will arrive.
  OSStatus Settle(TimeLimit* limit, bool* lost);
  // Whether Send had to wait for room, so that time has passed.
  bool HasWaited() const { return waited; }
  // `left` is the time until `deadline`, as for SetReceiveTimeout.
  OSStatus AwaitReply(uint64_t requestNumber, int64_t deadline, int64_t left, HostFrameSlice* body,
                      bool* lost);

  uint64_t lastUse = 0;

 private:
  // The stages of a lane. It exists in the middle three.
  enum class Stage { kNone, kOffered, kAccepted, kInUse, kDeclined };

  OSStatus WaitForRoom(int64_t deadline, bool* lost);
  bool TakeReply(HostFrameReader& reader, uint64_t requestNumber, HostFrameSlice* body, int* error);
  void TakeDecision(const HostFrameHeader& header);
  int DropReplies();
  int ReceiveFromLane();
  int ReceiveWithin(int64_t left);
  int WaitOnLane(int64_t left);
  OSStatus EndedBy(int error, bool* lost);
  bool SetReceiveTimeout(int64_t left);
  int Write(const std::vector<iovec>& pieces, size_t* written) {
    return stage == Stage::kInUse ? lane->Write(pieces, written)
                                  : HostWritePieces(descriptor, pieces, written);
  }

  int descriptor = -1;
  uint64_t portID = 0;
  HostFrameReader in{HostFrameReader::Passing::kDrop};
  Stage stage = Stage::kNone;
  std::unique_ptr<HostClientLane> lane;
  HostFrameReader inOfLane;
  uint64_t frames = 0;  // begun on this connection
  uint64_t offerAfter = kFramesBeforeLane;
  bool hasTried = false;       // to offer a lane
  HostOutQueue unfinished;     // the rest of a frame whose time-out has passed
  int64_t receiveTimeout = 0;  // as set on the socket, ns; 0: none
  bool waited = false;
};

bool Conversation::HasHungUp() const {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

OSStatus Conversation::Open(uint64_t port, TimeLimit* limit) {
  assert(!IsOpen() && unfinished.IsEmpty());
  const int64_t deadline = limit->Deadline();
  sockaddr_un address;
  socklen_t size = 0;
  if (!HostPortAddress(port, &address, &size)) return connectionInvalid;
  {
    HostDescriptorOpening opening;
    descriptor = opening.Enter(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0),
                               HostDescriptorKind::kConnection);
  }
  if (descriptor < 0) return memFullErr;
  for (;;) {
    // A connect waits only while the server's backlog is full; the send time-out bounds that.
    if (deadline != kHostNever) {
      const timeval left = TimevalOf(TimeLeft(deadline));
      setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &left, sizeof left);
    }
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0) break;
    const int error = errno;
    if (error == EINTR && HostNow() < deadline) continue;
    Close();
    if (error == EAGAIN || error == EINTR) return errAETimeout;
    if (error == ENOMEM || error == ENOBUFS) return memFullErr;
    HostForgetDeadPort(port);
    return connectionInvalid;
  }
  portID = port;
  HostWidenSocket(descriptor);
  return 0;
}

void Conversation::Close() {
  HostCloseDescriptor(descriptor);
  descriptor = -1;
  in = HostFrameReader(HostFrameReader::Passing::kDrop);
  unfinished = HostOutQueue();
  receiveTimeout = 0;
  stage = Stage::kNone;
  lane.reset();
  inOfLane = HostFrameReader();
  frames = 0;
  offerAfter = kFramesBeforeLane;
  hasTried = false;
}

// A lane that cannot be made is not an error of the send: the socket stays in use.
void Conversation::ConsiderLane(size_t size, uint64_t sender) {
  frames++;
  if (stage == Stage::kOffered) {
    DropReplies();  // the next write or read reports the end of the connection again
    return;
  }
  if (stage != Stage::kNone || !unfinished.IsEmpty()) return;
  if (frames <= offerAfter && (size <= kLargeFrame || hasTried)) return;
  offerAfter = frames * 2;
  hasTried = true;
  HostGuard([&] { lane = std::make_unique<HostClientLane>(); });
  if (lane == nullptr) return;
  if (lane->Offer(descriptor, portID, sender) == 0) {
    stage = Stage::kOffered;
    in.SetPassing(HostFrameReader::Passing::kTake);
  } else {
    lane.reset();
  }
}

// Takes the server's decision on the offer.
void Conversation::TakeDecision(const HostFrameHeader& header) {
  HostPassedPair passed = in.TakePassed();
  if (stage != Stage::kOffered) return;
  in.SetPassing(HostFrameReader::Passing::kDrop);
  const bool isAccepted = header.kind == HostFrameKind::kLaneAccepted && lane->Accept(&passed) == 0;
  stage = isAccepted ? Stage::kAccepted : Stage::kDeclined;
  if (!isAccepted) lane.reset();
}

// Drops the replies that have arrived: their requests have timed out. Reads a few times at most, so
// that the caller reads the clock however much the server sends. Returns 0 or errno.
int Conversation::DropReplies() {
  for (int i = 0; i < kReceivesPerLook; i++) {
    HostFrameSlice body;
    int error = 0;
    TakeReply(in, 0, &body, &error);
    if (error == 0 && stage == Stage::kInUse) {
      TakeReply(inOfLane, 0, &body, &error);
      if (error == 0) error = ReceiveFromLane();
    } else if (error == 0) {
      const ssize_t size = in.Receive(descriptor, MSG_DONTWAIT);
      error = size > 0 ? 0 : size == 0 ? EPIPE : errno;
    }
    if (error == 0 || error == EINTR) continue;
    return error == EAGAIN ? 0 : error;
  }
  return 0;
}

// Takes frames until the reply to the request has come; `requestNumber` 0 takes all. Returns false
// if the reply has not come. `*error` is then EBADMSG if the following bytes are not frames.
bool Conversation::TakeReply(HostFrameReader& reader, uint64_t requestNumber, HostFrameSlice* body,
                             int* error) {
  HostFrameHeader header;
  HostFrameReader::Next next;
  while ((next = reader.Take(&header, body)) == HostFrameReader::Next::kFrame) {
    if (header.kind == HostFrameKind::kReply && requestNumber != 0 &&
        header.requestNumber == requestNumber) {
      return true;
    }
    if (header.kind >= HostFrameKind::kLaneOffer) TakeDecision(header);
  }
  *body = HostFrameSlice();
  if (next == HostFrameReader::Next::kBad) *error = EBADMSG;
  return false;
}

// Takes the bytes that have come by the lane or, late, by the socket. Returns 0; EAGAIN if there
// are none; EPIPE if the server has hung up and all has been taken; another error number.
int Conversation::ReceiveFromLane() {
  if (lane->Receive(inOfLane) > 0) return 0;
  if (errno != EAGAIN) return errno;
  if (lane->IsSocketReadable()) {
    const ssize_t size = in.Receive(descriptor, MSG_DONTWAIT);
    if (size > 0) return 0;
    if (size < 0 && errno != EAGAIN) return errno;
    lane->SetSocketRead();
  }
  // HasHungUp is as of the last wait. What the server had written before it hung up was in the lane
  // when the lane was read above.
  return lane->HasHungUp() ? EPIPE : EAGAIN;
}

// Waits for the lane. `left` is as for SetReceiveTimeout. Returns 0 if the caller is to look again,
// else errno.
int Conversation::WaitOnLane(int64_t left) {
  const int64_t most = std::min<int64_t>((left + kHostMillisecond - 1) / kHostMillisecond, INT_MAX);
  const int error = lane->Wait(left == 0 ? -1 : static_cast<int>(most), false);
  return error == ETIMEDOUT ? 0 : error;
}

// Reads while it waits: the server may be unable to take more until this thread does.
OSStatus Conversation::WaitForRoom(int64_t deadline, bool* lost) {
  const int wait = HostMillisecondsUntil(deadline, HostNow());
  if (wait == 0) return errAETimeout;
  waited = true;
  int error = 0;
  if (stage == Stage::kInUse) {
    error = lane->Wait(wait, true);
    if (error != 0 && error != ETIMEDOUT) return memFullErr;
  } else {
    pollfd entry = {descriptor, POLLIN | POLLOUT, 0};
    const int ready = poll(&entry, 1, wait);
    if (ready == 0 || (ready < 0 && errno == EINTR)) return 0;
    if (ready < 0) return memFullErr;
    if ((entry.revents & POLLIN) == 0) return 0;
  }
  error = DropReplies();
  if (error == 0) return 0;
  *lost = true;
  return connectionInvalid;
}

OSStatus Conversation::Send(const std::vector<iovec>& pieces, TimeLimit* limit, bool* lost) {
  assert(IsOpen());
  OSStatus err = 0;
  waited = false;
  while (err == 0 && !unfinished.IsEmpty()) {
    const int error =
        stage == Stage::kInUse ? lane->Flush(unfinished) : unfinished.Flush(descriptor);
    if (error == EAGAIN) {
      err = WaitForRoom(limit->Deadline(), lost);
    } else if (error != 0) {
      *lost = true;
      err = connectionInvalid;
    }
  }
  if (err == 0 && stage == Stage::kAccepted) stage = Stage::kInUse;
  size_t written = 0;
  while (err == 0) {
    const int error = Write(pieces, &written);
    if (error == 0) return 0;
    if (error == EAGAIN) {
      err = WaitForRoom(limit->Deadline(), lost);
    } else {
      *lost = IsLost(error);
      err = *lost              ? OSStatus{connectionInvalid}
            : error == EBADMSG ? EndedBy(error, lost)
                               : OSStatus{memFullErr};
    }
  }
  if (err == errAETimeout && written > 0 && !unfinished.Append(pieces, written)) Close();
  return err;
}

// A socket fails at once if the server has gone. A lane takes the frame all the same, so the socket
// has to be checked. While the server is giving the connection up, the thread waits for its end:
// only then is it known whether the server has taken the frame.
OSStatus Conversation::Settle(TimeLimit* limit, bool* lost) {
  if (stage != Stage::kInUse) return 0;
  const bool isGoing = lane->IsServerGoing();
  if (!isGoing) lane->LookForHangUp();
  while (isGoing && !lane->HasHungUp()) {
    const int wait = HostMillisecondsUntil(limit->Deadline(), HostNow());
    if (wait == 0) return errAETimeout;
    int error = lane->Wait(wait, false);
    if (error == 0) error = DropReplies();
    if (error != 0 && error != ETIMEDOUT && error != EPIPE) return EndedBy(error, lost);
  }
  if (!lane->HasHungUp() || lane->IsAllTaken()) return 0;
  *lost = true;
  return connectionInvalid;
}

bool Conversation::SetReceiveTimeout(int64_t left) {
  // A value that is near enough is kept: most requests have the same time-out.
  if (receiveTimeout >= left && receiveTimeout - left <= kTimeoutSlack && left != 0) return true;
  if (left == receiveTimeout) return true;
  const timeval time = TimevalOf(left);
  if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time) != 0) return false;
  receiveTimeout = left;
  return true;
}

// Waits for bytes on the socket and takes them. `left` is as for SetReceiveTimeout. Returns 0 or
// errno.
int Conversation::ReceiveWithin(int64_t left) {
  int flags = 0;
  if (stage == Stage::kOffered) {
    // A call that may receive file descriptors must not wait: forks are held off meanwhile.
    pollfd entry = {descriptor, POLLIN, 0};
    const int wait = left == 0 ? -1 : HostMillisecondsUntil(left, 0);
    const int ready = poll(&entry, 1, wait);
    if (ready <= 0) return ready == 0 ? EAGAIN : errno;
    flags = MSG_DONTWAIT;
  } else if (!SetReceiveTimeout(left)) {
    return errno;
  }
  const ssize_t size = in.Receive(descriptor, flags);
  return size > 0 ? 0 : size == 0 ? EPIPE : errno;
}

// Closes the connection after an error. Now it is known whether the last frame counts as lost.
OSStatus Conversation::EndedBy(int error, bool* lost) {
  *lost = stage == Stage::kInUse && IsLost(error) && !lane->IsAllTaken();
  Close();
  if (error == EBADMSG) return errAECorruptData;
  return IsLost(error) ? connectionInvalid : memFullErr;
}

OSStatus Conversation::AwaitReply(uint64_t requestNumber, int64_t deadline, int64_t left,
                                  HostFrameSlice* body, bool* lost) {
  assert(IsOpen() && unfinished.IsEmpty());  // the request has been written
  for (bool hasReceived = false;; hasReceived = true) {
    int error = 0;
    if (stage == Stage::kInUse && TakeReply(inOfLane, requestNumber, body, &error)) return 0;
    if (error == 0 && TakeReply(in, requestNumber, body, &error)) return 0;
    if (error != 0) return EndedBy(error, lost);
    // After each receive, also a successful one: a server may send other frames for ever.
    if (hasReceived && deadline != kHostNever) {
      if (HostNow() >= deadline) return errAETimeout;
      left = TimeLeft(deadline);
    }
    if (stage == Stage::kInUse) {
      error = ReceiveFromLane();
      if (error == EAGAIN && inOfLane.PartialBytes() > 0 && lane->AwaitBytes()) {
        error = ReceiveFromLane();
      }
      if (error == EAGAIN && (error = WaitOnLane(left)) == 0) error = ReceiveFromLane();
    } else {
      error = ReceiveWithin(left);
    }
    if (error != 0 && error != EINTR && error != EAGAIN) return EndedBy(error, lost);
  }
}

// The connections of one thread. The least recently used one is replaced first.
class Conversations {
 public:
  Conversations() = default;
  ~Conversations() { CheckFork(); }  // in a forked child nothing of the parent's is closed

  Conversation* FindOrOpen(uint64_t portID, TimeLimit* limit, OSStatus* err, bool* fresh);
  uint64_t ThreadNumber();

 private:
  void CheckFork();
  Conversation* Choose();

  std::array<Conversation, kConnectionsPerThread> all;
  Conversation* latest = &all[0];  // the one used last
  uint64_t useCount = 0;
  uint64_t threadNumber = 0;
  uint32_t generation = 0;
};

void Conversations::CheckFork() {
  if (generation == HostForkGeneration()) return;
  if (generation != 0) {
    for (Conversation& each : all) each.Forget();
  }
  generation = HostForkGeneration();
  threadNumber = RandomNumber();
}

uint64_t Conversations::ThreadNumber() {
  CheckFork();
  return threadNumber;
}

// Finds a slot for a new connection. First closes every connection whose port is gone. If no slot
// is free then, closes the least recently used connection, if possible one without an unfinished
// frame.
Conversation* Conversations::Choose() {
  for (Conversation& each : all) {
    if (each.IsOpen() && each.HasHungUp()) each.Close();
  }
  Conversation* choice = nullptr;
  for (Conversation& each : all) {
    if (!each.IsOpen()) return &each;
    if (choice == nullptr || std::pair(each.HasUnfinished(), each.lastUse) <
                                 std::pair(choice->HasUnfinished(), choice->lastUse)) {
      choice = &each;
    }
  }
  choice->Close();
  return choice;
}

Conversation* Conversations::FindOrOpen(uint64_t portID, TimeLimit* limit, OSStatus* err,
                                        bool* fresh) {
  CheckFork();
  *fresh = false;
  Conversation* conversation = latest->IsTo(portID) ? latest : nullptr;
  for (size_t i = 0; conversation == nullptr && i < all.size(); i++) {
    if (all[i].IsTo(portID)) conversation = &all[i];
  }
  if (conversation == nullptr) {
    conversation = Choose();
    *fresh = true;
    *err = conversation->Open(portID, limit);
    if (*err != 0) return nullptr;
  }
  conversation->lastUse = ++useCount;
  latest = conversation;
  return conversation;
}

Conversations& ThreadConversations() { return HostThreadObject<Conversations>(); }

}  // namespace

uint64_t HostNextRequestNumber() { return HostThreadObject<RequestNumbers>().Next(); }

uint64_t HostThreadNumber() { return ThreadConversations().ThreadNumber(); }

OSStatus HostConverse(uint64_t portID, HostFrameHeader header, HostGather& frame, int64_t timeout,
                      HostFrameSlice* replyBody) {
  TimeLimit limit(timeout);
  const int64_t deadline = replyBody == nullptr ? kHostNever : limit.Deadline();
  header.sender = HostThreadNumber();
  HostFillFrameHeader(header, &frame);

  // A frame that has not arrived whole is never dispatched. So if the server gave the connection
  // up, it is replaced once and the frame is sent again.
  for (;;) {
    OSStatus err = 0;
    bool fresh = false, lost = false;
    Conversation* conversation = ThreadConversations().FindOrOpen(portID, &limit, &err, &fresh);
    if (conversation == nullptr) return err;
    conversation->ConsiderLane(frame.TotalSize(), header.sender);
    err = conversation->Send(frame.Pieces(), &limit, &lost);
    if (err == 0 && replyBody == nullptr) err = conversation->Settle(&limit, &lost);
    if (err == 0 && replyBody != nullptr) {
      // As a rule no time has passed, and the clock need not be read again.
      const bool isNow = timeout != kHostNever && !fresh && !conversation->HasWaited();
      err = conversation->AwaitReply(header.requestNumber, deadline,
                                     isNow ? timeout : TimeLeft(deadline), replyBody, &lost);
    }
    if (!lost) return err;
    conversation->Close();
    if (fresh) return connectionInvalid;
  }
}
