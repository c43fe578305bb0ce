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

// HostFrameReader divides the bytes of a connection into frames. The bytes of a frame are handed
// out where they were received, without a copy. A frame's buffer grows as it fills, whatever length
// its header claims, so a peer cannot make this process allocate more than twice what it sends, or
// one block.
class HostFrameReader {
 public:
  // The treatment of file descriptors that the peer passes.
  enum class Passing {
    kDrop,    // the kernel drops them
    kRefuse,  // they are never installed, and the stream is broken
    kTake,    // two may come, with a frame that carries file descriptors; else the stream is broken
  };

  explicit HostFrameReader(Passing with = Passing::kRefuse) : passing(with) {}
  void SetPassing(Passing with) { passing = with; }

  // One receive call on `fd` with `flags` (MSG_DONTWAIT or 0; only MSG_DONTWAIT with kTake).
  // Returns the number of bytes; 0 at the end of the stream; -1 with errno: EAGAIN, EINTR, ENOMEM,
  // EBADMSG (file descriptors that may not come: the stream is to be closed), others.
  ssize_t Receive(int fd, int flags);

  // Takes bytes out of a ring. The caller gives their room back (Release).
  // Returns the number of bytes; -1 with errno: EAGAIN (the ring is empty), ENOMEM, EBADMSG (an
  // impossible position: the stream is to be closed).
  ssize_t Receive(HostRingConsumer& ring);

  enum class Next { kFrame, kIncomplete, kBad };
  // Takes the next complete frame. kBad: the next bytes are not a frame, and no further frame is
  // returned.
  Next Take(HostFrameHeader* header, HostFrameSlice* body);
  // Takes the file descriptors that came with the frame taken last. The pair is incomplete if this
  // process had no room for them.
  HostPassedPair TakePassed() { return std::move(passed); }

  bool HasCompleteFrame() const { return !bad && end - begin >= wanted; }
  bool IsBad() const { return bad; }  // kBad comes after the complete frames before it
  // Copies the header of the next frame, which need not be complete. Returns false while the header
  // has not arrived.
  bool Peek(HostFrameHeader* header) const;
  // The received bytes of a frame that is not complete.
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
  // File descriptors that belong to the frame that ends `passedAt` bytes after `begin`.
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

// HostOutQueue holds the frames that could not be written at once, one block for each.
class HostOutQueue {
 public:
  bool IsEmpty() const { return size == 0; }
  size_t Size() const { return size; }
  // Bytes after the frame that is being written.
  size_t WaitingSize() const { return IsEmpty() ? 0 : size - blocks[first].size; }

  // Appends the rest of a frame of which `written` bytes have been written. Returns false without
  // memory.
  bool Append(std::span<const iovec> pieces, size_t written);

  // Writes as much as the socket takes without waiting.
  // Returns 0, EAGAIN if something is left, or another errno if the connection is lost.
  int Flush(int fd);
  // Writes as much as the ring has room for. Returns 0, EAGAIN or EBADMSG. The caller publishes it.
  int Flush(HostRingProducer& ring);

 private:
  void DropFirst();
  void Advance(size_t count);

  std::vector<HostFrameSlice> blocks;
  size_t first = 0;  // of the blocks not yet out
  size_t size = 0;   // bytes in all
};

// Writes the pieces to `fd` without waiting and without SIGPIPE, from offset `*written` on, which
// it advances. Returns 0 if everything has been written, else errno (EAGAIN, EPIPE, ...).
int HostWritePieces(int fd, std::span<const iovec> pieces, size_t* written);

// Sets the largest send buffer that the kernel allows without privilege: a large frame then takes
// fewer switches between its two ends.
void HostWidenSocket(int fd);
