#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/host/wire/frame.h"
#include "platform/host/wire/frame_buffer.h"

// Both directions of a stream of frames. One owner at a time; not thread-safe.

// HostFrameReader cuts what a connection delivers into frames. The bytes of a frame are handed out
// where they were received, without a copy. No allocation runs ahead of the bytes that have come:
// a frame's buffer grows as it fills, whatever length its header claims.
class HostFrameReader {
 public:
  // With `refuse`, a descriptor that the peer passes along is noticed (and never installed); else
  // the kernel drops it.
  explicit HostFrameReader(bool refuse = true) : refuseDescriptors(refuse) {}

  // One receive call on `fd` with `flags` (MSG_DONTWAIT or 0).
  // Result  bytes received; 0 at the end of the stream; -1 with errno: EAGAIN, EINTR, ENOMEM,
  //         EBADMSG (somebody passed a descriptor: the stream is to be closed), others.
  ssize_t Receive(int fd, int flags);

  enum class Next { kFrame, kIncomplete, kBad };
  // The next complete frame. kBad: the stream is no stream of frames, nothing follows.
  Next Take(HostFrameHeader* header, HostFrameSlice* body);

  bool HasCompleteFrame() const { return !bad && end - begin >= wanted; }
  bool IsBad() const { return bad; }  // kBad comes, behind the complete frames before it
  // The header of the frame that comes next, complete or not; false while it has not arrived.
  bool Peek(HostFrameHeader* header) const;
  // Bytes of a frame that has begun and is not complete.
  size_t PartialBytes() const { return HasCompleteFrame() ? 0 : end - begin; }

 private:
  bool MakeRoom();
  void LookAtHeader();

  bool refuseDescriptors;
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

 private:
  void DropFirst();

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
