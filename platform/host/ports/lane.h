#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/host/wire/frame_stream.h"
#include "platform/host/wire/ring.h"

// A lane carries the frames of one connection through shared memory. It begins with an offer that
// the client sends on the connection: a sealed memfd and an eventfd. The server accepts it with an
// eventfd and a page that tells whether it sleeps, or declines it, and then everything goes on by
// socket. This is what both ends have in common, and making and checking what is passed;
// lane_client.h and receiver_lanes.h are the two ends. Results are 0 or errno.

// HostMapping is shared memory, mapped for as long as the object lives. A forked child does not
// inherit it, and does nothing with its copy of the object.
class HostMapping {
 public:
  HostMapping() = default;
  HostMapping(const HostMapping&) = delete;
  HostMapping& operator=(const HostMapping&) = delete;
  ~HostMapping() { Unmap(); }

  int Map(int fd, size_t size, bool isWritable);
  void Unmap();
  void* Get() const { return memory; }

 private:
  void* memory = nullptr;
  size_t size = 0;
  uint32_t generation = 0;  // of the process, by forks
};

// HostLaneDescriptor owns a file descriptor that is entered in the table of descriptors.h. In a
// forked child, where that has closed it, the object's copy does nothing.
class HostLaneDescriptor {
 public:
  HostLaneDescriptor() = default;
  HostLaneDescriptor(const HostLaneDescriptor&) = delete;
  HostLaneDescriptor& operator=(const HostLaneDescriptor&) = delete;
  ~HostLaneDescriptor() { Reset(-1); }

  int Get() const { return fd; }
  bool IsOpen() const { return fd >= 0; }
  void Reset(int taken);  // -1: closes only

 private:
  int fd = -1;
  uint32_t generation = 0;
};

// HostLaneShare is one lane's part of what the lanes of this process may take together: 64 MiB of
// memory and a quarter of its file descriptors.
class HostLaneShare {
 public:
  HostLaneShare() = default;
  HostLaneShare(const HostLaneShare&) = delete;
  HostLaneShare& operator=(const HostLaneShare&) = delete;
  ~HostLaneShare();

  // False when there is no room for another lane that needs so many descriptors.
  bool Take(size_t count);

 private:
  size_t descriptors = 0;
  uint32_t generation = 0;
};

// HostLaneEnd is one end of a lane: a ring to each direction and the eventfd that wakes the peer.
// Never waits. One thread at a time.
class HostLaneEnd {
 public:
  HostLaneEnd() = default;
  HostLaneEnd(const HostLaneEnd&) = delete;
  HostLaneEnd& operator=(const HostLaneEnd&) = delete;

  // Takes what has come, as HostFrameReader::Receive.
  ssize_t Receive(HostFrameReader& reader);
  // Whether Receive would not give EAGAIN.
  bool HasBytes() { return !in.Look() || in.Available() > 0; }

  // Write as HostWritePieces and HostOutQueue::Flush. EAGAIN: the peer rings when there is room.
  int Write(std::span<const iovec> pieces, size_t* written);
  int Flush(HostOutQueue& queue);

  // Whether the peer has taken all that was written.
  bool IsAllTaken() { return out.Look() && out.Room() == kHostRingSize; }

 protected:
  ~HostLaneEnd() = default;

  HostLaneShare share;
  HostMapping memory;
  HostLaneDescriptor peerBell;
  HostRingProducer out;
  HostRingConsumer in;

 private:
  template <class Put>
  int PutAll(Put put);
  void Ring();

  bool waitsForRoom = false;
};

// The server's end.
class HostServerLane : public HostLaneEnd {
 public:
  // Takes over what a client offered. `sleepWord` of the receiver's status page must outlive it.
  // Result  0; EBADMSG (it is not what an offer consists of); others: it cannot be had now.
  int Open(HostPassedPair* offered);

  // The client learns that nothing is taken any more but what Receive still finds: a frame of which
  // that is not true was never dispatched.
  void Close() { HostServerGoesWord(memory.Get())->Store(1); }
};

// What a receiver has for all its lanes: the doorbell that clients ring, and the page in which they
// see whether it sleeps. Made with the first lane.
class HostLaneHall {
 public:
  HostLaneHall() = default;
  HostLaneHall(const HostLaneHall&) = delete;
  HostLaneHall& operator=(const HostLaneHall&) = delete;
  ~HostLaneHall() { Close(); }

  bool IsOpen() const { return isOpen.load(std::memory_order_acquire); }  // also without the lock
  int Open();
  void Close();

  int Doorbell() const { return doorbell.Get(); }
  // For who waits for the doorbell with poll: run loops never read it.
  void ClearDoorbell();
  // Reports that a run loop is about to sleep, or that none does any more.
  void SetAsleep(bool isAsleep) { isAsleep ? sleeper.Announce() : sleeper.Withdraw(); }
  // Sends the acceptance of an offer on a connection. Never waits.
  int SendAcceptance(int connection) const;

 private:
  std::atomic<bool> isOpen{false};
  HostLaneDescriptor doorbell;
  HostLaneDescriptor statusFile;
  HostMapping status;
  HostSleeper sleeper;
};

// What run loops watch a doorbell for: edge-triggered, because it is never read.
inline constexpr uint32_t kHostDoorbellEvents = EPOLLIN | EPOLLET;

// Helpers of both ends.

// A new eventfd that never blocks, or a new memfd of this size that may be sealed; entered in the
// table of descriptors.h. Results: a descriptor, or -1 with errno.
int HostMakeBell();
int HostMakeSharedFile(const char* name, size_t size);
// The name of a lane's memfd, as it is seen in a process's list of mappings.
std::string HostLaneFileName(uint64_t portID);

// Whether `fd`, which a peer passed, is an eventfd that does not block, or a memfd of `size` bytes
// that can neither shrink nor grow. 0; EBADMSG (it is not); others: it cannot be told now.
int HostCheckBell(int fd);
int HostCheckSharedFile(int fd, size_t size);

// Sends a frame without a body and two descriptors with it. Never waits.
int HostSendPassing(int socket, const HostFrameHeader& header, int first, int second);
