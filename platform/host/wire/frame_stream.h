#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "platform/host/wire/frame.h"
#include "platform/host/wire/frame_buffer.h"

class HostRingConsumer;
class HostRingProducer;

// Both directions of a stream of frames. One owner at a time; not thread-safe.

// The two file descriptors that came with a frame, entered in the table of descriptors.h. Closed
// with the object unless they are taken out. One owner.
class HostPassedPair {
 public:
  HostPassedPair() = default;
  HostPassedPair(HostPassedPair&& other) noexcept { *this = std::move(other); }
  HostPassedPair& operator=(HostPassedPair&& other) noexcept;
  ~HostPassedPair() { Close(); }

  bool IsComplete() const { return descriptors[0] >= 0 && descriptors[1] >= 0; }
  int At(size_t index) const { return descriptors[index]; }
  int TakeOut(size_t index) { return std::exchange(descriptors[index], -1); }
  void Close();

 private:
  friend class HostFrameReader;
  int descriptors[2] = {-1, -1};
  uint32_t generation = 0;  // a forked child has closed its copies already
};

// HostFrameReader cuts what a connection delivers into frames. The bytes of a frame are handed out
// where they were received, without a copy. No allocation runs ahead of the bytes that have come:
// a frame's buffer grows as it fills, whatever length its header claims.
class HostFrameReader {
 public:
  // What becomes of file descriptors that the peer passes along.
  enum class Passing {
    kDrop,    // the kernel drops them
    kRefuse,  // they are noticed and never installed: the stream is broken
    kTake,    // two may come, with a frame that carries descriptors; else the stream is broken
  };

  explicit HostFrameReader(Passing with = Passing::kRefuse) : passing(with) {}
  void SetPassing(Passing with) { passing = with; }

  // One receive call on `fd` with `flags` (MSG_DONTWAIT or 0; only MSG_DONTWAIT with kTake).
  // Result  bytes received; 0 at the end of the stream; -1 with errno: EAGAIN, EINTR, ENOMEM,
  //         EBADMSG (descriptors that may not come: the stream is to be closed), others.
  ssize_t Receive(int fd, int flags);

  // Takes bytes out of a ring. The caller gives their room back (Release).
  // Result  bytes taken; -1 with errno: EAGAIN (the ring is empty), ENOMEM, EBADMSG (an impossible
  //         position: the stream is to be closed).
  ssize_t Receive(HostRingConsumer& ring);

  enum class Next { kFrame, kIncomplete, kBad };
  // The next complete frame. kBad: the stream is no stream of frames, nothing follows.
  Next Take(HostFrameHeader* header, HostFrameSlice* body);
  // The descriptors that came with the frame taken last. Incomplete when this process had no room
  // for them.
  HostPassedPair TakePassed() { return std::move(passed); }

  bool HasCompleteFrame() const { return !bad && end - begin >= wanted; }
  bool IsBad() const { return bad; }  // kBad comes, behind the complete frames before it
  // The header of the frame that comes next, complete or not; false while it has not arrived.
  bool Peek(HostFrameHeader* header) const;
  // Bytes of a frame that has begun and is not complete.
  size_t PartialBytes() const { return HasCompleteFrame() ? 0 : end - begin; }

 private:
  bool MakeRoom();
  void LookAtHeader();
  void Grow(size_t size);
  ssize_t ReceiveTaking(int fd, const iovec& room, int flags, bool* havePassed);
  bool EndsWithCarrier(size_t* begun) const;
  bool CompleteCarrier(int fd);
  bool ArePassedRight();

  Passing passing;
  // Descriptors that belong to the frame that ends `passedAt` bytes behind `begin`.
  HostPassedPair passed;
  size_t passedAt = 0;  // 0: none have come
  size_t passedCount = 0;
  bool passedShort = false;  // this process had no room for all of them
  HostFrameRef block;
  size_t begin = 0;                      // of the first frame not yet taken, in `block`
  size_t end = 0;                        // of what was received
  size_t wanted = kHostFrameHeaderSize;  // size of the frame at `begin`, as far as it is known
  HostFrameHeader next;                  // of that frame, once it is known
  bool bad = false;
};

// HostOutQueue holds what a socket did not take at once, one block for each frame.
class HostOutQueue {
 public:
  bool IsEmpty() const { return size == 0; }
  size_t Size() const { return size; }
  // Bytes behind the frame that is being written.
  size_t WaitingSize() const { return IsEmpty() ? 0 : size - blocks[first].size; }

  // Appends what is left of a frame of which `written` bytes are out. False without memory.
  bool Append(std::span<const iovec> pieces, size_t written);

  // Writes as much as the socket takes without waiting.
  // Result  0, or errno: EAGAIN when something is left, others when the connection is lost.
  int Flush(int fd);
  // As above, as much as the ring has room for (EAGAIN, EBADMSG). The caller publishes it.
  int Flush(HostRingProducer& ring);

 private:
  void DropFirst();
  void Advance(size_t count);

  std::vector<HostFrameSlice> blocks;
  size_t first = 0;  // of the blocks not yet out
  size_t size = 0;   // bytes in all
};

// Writes the pieces to `fd` without waiting and without SIGPIPE, beginning `*written` bytes in;
// `*written` moves on. Result: 0 when all is out, else errno (EAGAIN, EPIPE, ...).
int HostWritePieces(int fd, std::span<const iovec> pieces, size_t* written);

// Asks for as large a send buffer as the kernel gives without privilege: a large frame then takes
// fewer turns between its two ends.
void HostWidenSocket(int fd);
