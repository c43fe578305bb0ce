#pragma once

#include <cstdint>

#include "platform/host/ports/lane.h"

// HostClientLane is the client's end of a lane, and how its thread waits for the server: in an
// epoll set of its own, which has the thread's eventfd and the connection's socket, both
// edge-triggered. So one call waits for both, and neither has to be read afterwards. Belongs to the
// thread of its connection.
class HostClientLane : public HostLaneEnd {
 public:
  // Makes a lane and offers it on the connection `socket`. Never waits. Returns 0, or an error
  // number: EPIPE and others if the connection is lost, EAGAIN and others if there can be no lane
  // now.
  int Offer(int socket, uint64_t portID, uint64_t sender);

  // Takes the file descriptors that came with the acceptance. If it fails, the connection stays as
  // it was.
  int Accept(HostPassedPair* passed);

  // Waits until bytes have come in the lane or on the socket, or, with `forRoom`, until there is
  // room. `milliseconds` is as for epoll_wait. Returns 0 if the caller is to look again, ETIMEDOUT,
  // or another error number.
  int Wait(int milliseconds, bool forRoom);

  // Whether the socket has bytes to read. The owner reads until it is empty and then calls
  // SetSocketRead.
  bool IsSocketReadable() const { return isSocketReadable; }
  void SetSocketRead() { isSocketReadable = false; }
  // Whether the server has hung up, as of the last Wait.
  bool HasHungUp() const { return hasHungUp; }

  // Checks whether the server has hung up, for a caller that does not wait. Does it at most every
  // few microseconds, because it takes a system call.
  void LookForHangUp();
  // Whether the server has announced that it takes no more bytes. It serves those that it has taken
  // by the time it hangs up.
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
