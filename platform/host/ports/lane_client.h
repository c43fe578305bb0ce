#pragma once

#include <cstdint>

#include "platform/host/ports/lane.h"

// HostClientLane is the client's end of a lane, and how its thread waits for the server: in an
// epoll set of its own, which has the thread's eventfd and the connection's socket, both
// edge-triggered. So one call waits for both, and nothing has to be read afterwards. Belongs to the
// thread of its connection.
class HostClientLane : public HostLaneEnd {
 public:
  // Makes a lane and offers it on the connection `socket`. Never waits. Result  0; EPIPE and others
  // that mean that the connection is lost; EAGAIN; others: there can be no lane now.
  int Offer(int socket, uint64_t portID, uint64_t sender);

  // Takes what came with the acceptance. When it fails, the connection stays as it was.
  int Accept(HostPassedPair* passed);

  // Waits until something has come, in the lane or on the socket, or, `forRoom`, until there is
  // room. milliseconds: as epoll_wait. Result  0 (look again); ETIMEDOUT; others.
  int Wait(int milliseconds, bool forRoom);

  // Whether the socket has something to read; the owner reads until it has not, and says so.
  bool IsSocketReadable() const { return isSocketReadable; }
  void SetSocketRead() { isSocketReadable = false; }
  // Whether the server has hung up, as of the last Wait.
  bool HasHungUp() const { return hasHungUp; }

  // Looks whether the server is still there, at most every few microseconds, because that takes a
  // call: for who does not wait for anything.
  void LookForHangUp();
  // The server takes nothing more; what it has taken by the time that it hangs up, it serves.
  bool IsServerGoing() const { return HostServerGoesWord(memory.Get())->Load() != 0; }

 private:
  int Make(int socket);
  void TakeEvents(int milliseconds, int* count);

  HostLaneDescriptor bell;
  HostLaneDescriptor epollSet;
  HostMapping status;
  HostSleeper sleeper;
  int64_t lookedAt = 0;
  bool isSocketReadable = false;
  bool hasHungUp = false;
};
