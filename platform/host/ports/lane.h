#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/host/base/clock.h"
#include "platform/host/wire/frame_stream.h"
#include "platform/host/wire/ring.h"

// A lane carries the frames of one connection through shared memory. It begins with an offer that
// the client sends on the connection: a sealed memfd and an eventfd. The server accepts it with an
// eventfd and a page in which it reports whether it sleeps; or it declines the offer, and the
// socket stays in use. This file has the parts that both ends share, the server's end of one lane,
// and the checks of passed file descriptors. lane_client.h is the client's end, receiver_lanes.h
// has the lanes of a server. Functions return 0 or an errno.

// HostMapping is shared memory, mapped for as long as the object lives. A forked child does not
// inherit it, and its copy of the object does nothing.
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

  // Returns false if there is no room for another lane that needs so many file descriptors.
  bool Take(size_t count);

 private:
  size_t descriptors = 0;
  uint32_t generation = 0;
};

// HostBriefWait is a wait in the middle of a large frame. If the peer runs on another processor,
// its next step comes sooner than a sleeping thread could be woken. If it does not run, the wait is
// in vain, so each vain wait leaves out more of the next ones. One thread at a time.
class HostBriefWait {
 public:
  // Calls isReady() again and again, for kMost at most, until it returns true. Returns false after
  // that time, and at once if this wait is left out.
  template <class Ready>
  bool Wait(Ready isReady) {
    if (skipped < toSkip) {
      ++skipped;
      return false;
    }
    const int64_t end = HostNow() + kMost;
    bool isGood = false;
    do isGood = isReady();
    while (!isGood && HostNow() < end);
    skipped = 0;
    toSkip = isGood ? toSkip / 4 : std::min(2 * toSkip + 1, kSkipMost);
    return isGood;
  }

 private:
  static constexpr int64_t kMost = 20'000;  // ns
  static constexpr uint32_t kSkipMost = 255;

  uint32_t toSkip = 0;
  uint32_t skipped = 0;
};

// HostLaneEnd is one end of a lane: a ring in each direction and the eventfd that wakes the peer.
// Waits for microseconds at most, in the middle of a large frame. One thread at a time.
class HostLaneEnd {
 public:
  HostLaneEnd() = default;
  HostLaneEnd(const HostLaneEnd&) = delete;
  HostLaneEnd& operator=(const HostLaneEnd&) = delete;

  // Takes the bytes that have come, like HostFrameReader::Receive.
  ssize_t Receive(HostFrameReader& reader);
  // Whether Receive would return something else than EAGAIN.
  bool HasBytes() { return !in.Look() || in.Available() > 0; }

  // Called when only a part of a frame has come. Returns whether the next bytes come within
  // microseconds.
  bool AwaitBytes() {
    return brief.Wait([this] { return HasBytes(); });
  }

  // Both write like HostWritePieces and HostOutQueue::Flush. After EAGAIN the peer rings when there
  // is room.
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

  HostBriefWait brief;
  bool waitsForRoom = false;
};

// The server's end.
class HostServerLane : public HostLaneEnd {
 public:
  // Takes over the memfd and the eventfd of an offer. Returns 0; EBADMSG if they are not what an
  // offer consists of; another error number if there can be no lane now.
  int Open(HostPassedPair* offered);

  // Tells the client that the server takes no bytes any more, except those that Receive still
  // finds. So a frame that is not in the ring by then has not been dispatched.
  void Close() { HostServerGoesWord(memory.Get())->Store(1); }
};

// HostLaneHall is what all lanes of a receiver share: the doorbell that clients ring, and the
// status page in which they see whether a run loop sleeps.
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
  // For a thread that waits for the doorbell with poll: run loops never read it.
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

// The epoll events of a doorbell: edge-triggered, because it is never read.
inline constexpr uint32_t kHostDoorbellEvents = EPOLLIN | EPOLLET;

// Helpers of both ends.

// Make an eventfd that never blocks, or a memfd of this size that can be sealed, and enter it in
// the table of descriptors.h. They return a file descriptor, or -1 and set errno.
int HostMakeBell();
int HostMakeSharedFile(const char* name, size_t size);
// Returns the name of a lane's memfd, as a process's list of mappings has it.
std::string HostLaneFileName(uint64_t portID);

// Check that `fd`, which a peer has passed, is an eventfd that does not block, or a memfd of `size`
// bytes that can neither shrink nor grow. They return 0; EBADMSG if it is not; another error number
// if the check fails.
int HostCheckBell(int fd);
int HostCheckSharedFile(int fd, size_t size);

// Sends a frame without a body and two file descriptors with it. Never waits.
int HostSendPassing(int socket, const HostFrameHeader& header, int first, int second);
