#include "platform/host/ports/receiver_lanes.h"

#include <cassert>
#include <cerrno>

#include <algorithm>
#include <memory>
#include <utility>

namespace {

constexpr size_t kLanesMost = 64;
constexpr uint32_t kDoorbell = UINT32_MAX;  // in place of a connection's number

}  // namespace

size_t HostReceiverLanes::CountUsed() const {
  const auto used = std::count_if(all.begin(), all.end(), [](const HostConnection* each) {
    return each != nullptr && each->readsLane;
  });
  return static_cast<size_t>(used);
}

// Lanes.

int HostReceiverLanes::Accept(HostConnection& connection) {
  assert(connection.lane == nullptr && !isVisiting);
  HostPassedPair offered = connection.in.TakePassed();
  auto lane = std::make_unique<HostServerLane>();
  all.reserve(all.size() + 1);
  int error = lane->Open(&offered);
  if (error != 0) return error;
  // The acceptance must not come in the middle of a reply.
  if (all.size() >= kLanesMost || !connection.out.IsEmpty()) return EAGAIN;
  if (!hall.IsOpen()) error = Open();
  if (error == 0) error = hall.SendAcceptance(connection.descriptor);
  if (error == 0) {
    connection.lane = std::move(lane);
    all.push_back(&connection);
  } else if (all.empty()) {
    Close();
  }
  return error == EBADMSG ? EIO : error;
}

void HostReceiverLanes::Leave(HostConnection& connection) {
  if (connection.lane == nullptr) return;
  const auto position = std::find(all.begin(), all.end(), &connection);
  assert(position != all.end());
  if (isVisiting) {
    *position = nullptr;
    return;
  }
  all.erase(position);
  if (all.empty()) Close();
}

// Visits.

HostConnection* HostReceiverLanes::FirstVisit() {
  if (all.empty()) return nullptr;
  isVisiting = true;
  visited = 0;
  return NextVisit();
}

HostConnection* HostReceiverLanes::NextVisit() {
  assert(isVisiting);
  while (visited < all.size()) {
    HostConnection* const connection = all[(first + visited++) % all.size()];
    if (connection != nullptr) return connection;
  }
  isVisiting = false;
  std::erase(all, nullptr);
  first = first + 1 < all.size() ? first + 1 : 0;
  if (all.empty()) Close();
  return nullptr;
}

bool HostReceiverLanes::AwaitRest() {
  for (HostConnection* connection : all) {
    const bool mayRead = connection->readsLane && !connection->paused && !connection->ended;
    if (mayRead && connection->in.PartialBytes() > 0) return connection->lane->AwaitBytes();
  }
  return false;
}

// Sleeping and waking.

void HostReceiverLanes::ReportSleep(int epollSet) {
  interest.SetAsleep(epollSet, true);
  hall.SetAsleep(true);
}

void HostReceiverLanes::RevokeSleep(int epollSet) {
  if (hall.IsOpen()) hall.SetAsleep(interest.SetAsleep(epollSet, false));
}

void HostReceiverLanes::ReportWakeUp(int epollSet) {
  if (hall.IsOpen() && !interest.SetAsleep(epollSet, false)) hall.SetAsleep(false);
}

// The doorbell.

bool HostReceiverLanes::IsDoorbell(uint32_t number) { return number == kDoorbell; }

int HostReceiverLanes::Open() {
  const int error = hall.Open();
  if (error != 0) return error;
  if (!interest.Change(hall.Doorbell(), kDoorbell, 0, kHostDoorbellEvents)) {
    hall.Close();
    return ENOMEM;
  }
  interest.Wake();  // a run loop that sleeps now has not reported it
  return 0;
}

void HostReceiverLanes::Close() {
  if (!hall.IsOpen()) return;
  UnwatchAll();
  hall.Close();
}

bool HostReceiverLanes::Watch(const HostInterest::Watcher& watcher, bool on) {
  const uint32_t events = kHostDoorbellEvents;
  return !hall.IsOpen() || HostInterest::ChangeIn(watcher, hall.Doorbell(), kDoorbell,
                                                  on ? 0 : events, on ? events : 0);
}

void HostReceiverLanes::UnwatchAll() {
  if (hall.IsOpen()) interest.Change(hall.Doorbell(), kDoorbell, kHostDoorbellEvents, 0);
}
