#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/ports/connection.h"
#include "platform/host/ports/interest.h"
#include "platform/host/ports/lane.h"

// HostReceiverLanes has the connections of a receiver that have a lane, and what these share: the
// doorbell that their clients ring, and the report whether a run loop sleeps. Both are made for the
// first lane and closed after the last.
//
//   no lane --offer accepted--> open: the socket is read --socket empty, lane not--> moved
//   moved: the lane is read, and the socket reports the peer's end
//
// A client rings the doorbell only while a run loop sleeps. So a run loop has all lanes visited
// before each wait: after it has reported that it is about to sleep, or, when messages wait anyway,
// because no client rings then. It has them visited, too, when the doorbell wakes it. Each round of
// visits begins one lane further than the one before.
//
// Guarded by its receiver's lock, except IsOpen.
class HostReceiverLanes {
 public:
  // Borrows the run loops that watch the receiver.
  explicit HostReceiverLanes(HostInterest& watchers) : interest(watchers) {}

  // Whether there is a lane. May be called without the lock.
  bool IsOpen() const { return hall.IsOpen(); }
  size_t CountUsed() const;  // those whose client has begun to use them

  // Accepts the offer that `connection` has received and gives it a lane. Returns 0; EBADMSG if
  // what was offered is not a lane; another error number if there can be no lane now. May throw
  // std::bad_alloc; the connection then has no lane.
  int Accept(HostConnection& connection);
  // A connection, with or without a lane, is about to be destroyed.
  void Leave(HostConnection& connection);

  // One round of visits: the first returns the connection that is visited first, the second each
  // further one. Null ends the round. Connections may leave in the middle of it.
  HostConnection* FirstVisit();
  HostConnection* NextVisit();

  // Waits for microseconds at most, if only a part of a frame has come by a lane. Returns whether
  // more has come.
  bool AwaitRest();

  // A run loop is about to sleep; it does not sleep after all; it has woken.
  void ReportSleep(int epollSet);
  void RevokeSleep(int epollSet);
  void ReportWakeUp(int epollSet);

  // The doorbell. In epoll's data it has a number that no connection has.
  static bool IsDoorbell(uint32_t number);
  int Doorbell() const { return hall.Doorbell(); }
  void ClearDoorbell() { hall.ClearDoorbell(); }
  // Enters it in one watcher's epoll set or takes it out. Returns false if the set refuses it.
  bool Watch(const HostInterest::Watcher& watcher, bool on);
  // Takes it out of all sets.
  void UnwatchAll();

 private:
  int Open();
  void Close();

  HostInterest& interest;
  HostLaneHall hall;
  std::vector<HostConnection*> all;  // null: has left during this round of visits
  size_t first = 0;                  // which is visited first
  size_t visited = 0;                // in this round
  bool isVisiting = false;
};
