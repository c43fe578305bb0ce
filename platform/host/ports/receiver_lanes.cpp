// The receiver's lanes: offers, visits, and the doorbell.
//
// A client with a lane rings the doorbell only while a run loop sleeps. So a run loop visits all
// lanes before each wait: after the report that it sleeps, or, when messages wait anyway, because
// nobody rings then. Woken by the doorbell it visits them too. A visit reads each lane that has no
// complete frame, and begins one lane further each time; complete frames stand in the same line as
// those of sockets.
//
//   no lane --offer accepted--> open: the socket is read --socket empty, lane not--> moved
//   moved: the lane is read, and the socket reports the peer's end
//
// Replies go by the socket until the connection has moved and the queue is empty. A connection that
// has hung up is ended when its lane is empty.

#include <fcntl.h>
#include <sys/socket.h>
#include <cassert>
#include <cerrno>

#include <algorithm>
#include <utility>

#include "platform/host/base/guard.h"
#include "platform/host/ports/receiver.h"

namespace {

constexpr size_t kLanesMost = 64;
// A lane brings as much as its ring holds before the next one is visited.
constexpr int kReadsPerVisit = 8;
// What stands for the doorbell among the numbers of connections.
constexpr uint32_t kDoorbell = UINT32_MAX;

}  // namespace

bool HostReceiver::IsDoorbell(uint32_t number) { return number == kDoorbell; }

// Sleeping and waking.

bool HostReceiver::PrepareToSleep(int epollSet) {
  if (!hall.IsOpen()) return HasMessages();
  bool isMoreToCome = false;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign() || IsDestroyed() || !hall.IsOpen()) return HasMessages();
    if (!HasMessages()) {
      interest.SetAsleep(epollSet, true);
      hall.SetAsleep(true);
    }
    isMoreToCome = VisitLanes() || HasMessages();
    if (isMoreToCome && hall.IsOpen()) hall.SetAsleep(interest.SetAsleep(epollSet, false));
  }
  intake.Relieve();
  return isMoreToCome;
}

void HostReceiver::WakeUp(int epollSet) {
  if (!hall.IsOpen()) return;
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || !hall.IsOpen()) return;
  if (!interest.SetAsleep(epollSet, false)) hall.SetAsleep(false);
}

// Visits.

// Result: whether there is more that can be read at once.
bool HostReceiver::VisitLanes() {
  if (lanes.empty()) return false;
  bool isMore = false;
  isVisiting = true;
  const size_t count = lanes.size();
  for (size_t i = 0; i < count; i++) {
    HostConnection* const connection = lanes[(firstLane + i) % count];
    if (connection != nullptr) isMore |= Visit(*connection);
  }
  isVisiting = false;
  std::erase(lanes, nullptr);
  firstLane = firstLane + 1 < lanes.size() ? firstLane + 1 : 0;
  if (lanes.empty()) CloseHall();
  return isMore;
}

bool HostReceiver::Visit(HostConnection& connection) {
  const uint32_t number = connection.number;
  if (connection.writesLane && !connection.out.IsEmpty()) {
    if (connection.hungUp) DiscardReplies(connection);  // nobody reads them
    const int error = Flush(connection);
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

// The socket of a connection that has moved: nothing may come by it any more but its end.
void HostReceiver::LookAtSocket(HostConnection& connection) {
  char byte;
  const ssize_t size = recv(connection.descriptor, &byte, sizeof byte, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size > 0 || (size < 0 && errno != ECONNRESET)) return Drop(connection);
  connection.hungUp = true;
  DiscardReplies(connection);
  UpdateInterest(connection);
  Visit(connection);
}

// A connection that goes, with or without a lane.
void HostReceiver::LeaveLane(HostConnection& connection) {
  if (connection.lane == nullptr) return;
  const auto place = std::find(lanes.begin(), lanes.end(), &connection);
  assert(place != lanes.end());
  if (isVisiting) {
    *place = nullptr;
    return;
  }
  lanes.erase(place);
  if (lanes.empty()) CloseHall();
}

// Offers.

// False when what was offered is no lane: the connection is to be closed.
bool HostReceiver::DecideOffer(HostConnection& connection) {
  connection.in.SetPassing(HostFrameReader::Passing::kRefuse);  // there is one offer
  const int error = HostGuard(int{ENOMEM}, [this, &connection] { return AcceptOffer(connection); });
  if (error == EBADMSG) return false;
  if (error == 0) return true;
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneDeclined;
  uint8_t frame[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, frame);
  const iovec piece = {frame, sizeof frame};
  size_t written = 0;
  const bool isQueued =
      !connection.out.IsEmpty() || connection.Write({&piece, 1}, &written) == EAGAIN;
  if (!isQueued) return true;
  if (!connection.out.Append({&piece, 1}, written)) return false;
  intake.SetQueued(connection.account, connection.out.Size());
  UpdateInterest(connection);
  return true;
}

// Result: 0; EBADMSG (it is no lane); others: there can be no lane now.
int HostReceiver::AcceptOffer(HostConnection& connection) {
  assert(connection.lane == nullptr);
  HostPassedPair offered = connection.in.TakePassed();
  auto lane = std::make_unique<HostServerLane>();
  lanes.reserve(lanes.size() + 1);
  int error = lane->Open(&offered);
  if (error != 0) return error;
  // The acceptance must not come in the middle of a reply.
  if (lanes.size() >= kLanesMost || !connection.out.IsEmpty()) return EAGAIN;
  if (!hall.IsOpen()) error = OpenHall();
  if (error == 0) error = hall.SendAcceptance(connection.descriptor);
  if (error == 0) {
    connection.lane = std::move(lane);
    lanes.push_back(&connection);
  } else if (lanes.empty()) {
    CloseHall();
  }
  return error == EBADMSG ? EIO : error;
}

// The doorbell.

int HostReceiver::OpenHall() {
  const int error = hall.Open();
  if (error != 0) return error;
  if (!interest.Change(hall.Doorbell(), kDoorbell, 0, kHostDoorbellEvents)) {
    hall.Close();
    return ENOMEM;
  }
  interest.Wake();  // who sleeps does not know of lanes yet
  return 0;
}

void HostReceiver::CloseHall() {
  if (!hall.IsOpen()) return;
  interest.Change(hall.Doorbell(), kDoorbell, kHostDoorbellEvents, 0);
  hall.Close();
}

// False when the watcher's epoll set does not take it.
bool HostReceiver::WatchDoorbell(const HostInterest::Watcher& watcher, bool on) {
  const uint32_t events = kHostDoorbellEvents;
  return !hall.IsOpen() || HostInterest::ChangeIn(watcher, hall.Doorbell(), kDoorbell,
                                                  on ? 0 : events, on ? events : 0);
}
