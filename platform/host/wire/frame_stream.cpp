#include "platform/host/wire/frame_stream.h"

#include <sys/socket.h>
#include <cerrno>
#include <climits>
#include <cstring>

#include <algorithm>
#include <utility>

#include "platform/host/base/guard.h"

namespace {

// What a connection reads into at first: many small frames, or the beginning of a large one. A
// frame with a parameter of 64 KiB fits whole.
constexpr size_t kBlockSize = size_t{68} << 10;
// The least room worth a receive call when no frame's size is known.
constexpr size_t kLeastRoom = size_t{4} << 10;
// Bytes of send buffer asked for; the kernel cuts it to its own limit. More makes a large frame
// slower again: what is under way no longer stays in the processor's cache.
constexpr int kSendBuffer = 1 << 18;
constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
// Queued blocks are moved to the front once so many before them are out.
constexpr size_t kCompactAt = 64;

int WritePiece(int fd, const iovec& piece, size_t* written) {
  while (*written < piece.iov_len) {
    const ssize_t size = send(fd, static_cast<const uint8_t*>(piece.iov_base) + *written,
                              piece.iov_len - *written, kSendFlags);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    *written += static_cast<size_t>(size);
  }
  return 0;
}

// Fails with EBADMSG when somebody passed a descriptor along, which is then not installed. (The
// plain call is cheaper, but the kernel drops descriptors there without a word.)
ssize_t ReceiveBytesAlone(int fd, iovec* room, int flags) {
  msghdr message = {};
  message.msg_iov = room;
  message.msg_iovlen = 1;
  const ssize_t size = recvmsg(fd, &message, flags | MSG_CMSG_CLOEXEC);
  if (size <= 0 || (message.msg_flags & MSG_CTRUNC) == 0) return size;
  errno = EBADMSG;
  return -1;
}

}  // namespace

bool HostFrameReader::Peek(HostFrameHeader* header) const {
  if (bad || end - begin < kHostFrameHeaderSize) return false;
  *header = next;
  return true;
}

void HostFrameReader::LookAtHeader() {
  wanted = kHostFrameHeaderSize;
  if (bad || end - begin < kHostFrameHeaderSize) return;
  if (HostDecodeFrameHeader(block->Bytes() + begin, &next)) {
    wanted = next.FrameSize();
  } else {
    bad = true;
  }
}

// Provides free bytes behind `end`: the rest of the frame that is being received, but never more
// than has been received of it already (or a block).
bool HostFrameReader::MakeRoom() {
  const size_t have = end - begin;
  if (block && have == 0 && !block->IsShared()) begin = end = 0;
  const size_t missing = wanted - have;
  if (block && block->Capacity() - end >= std::min(missing, kLeastRoom) &&
      (begin == 0 || block->Capacity() - begin >= wanted)) {
    return true;
  }
  // A block that this thread has from an earlier frame of that size costs nothing.
  HostFrameRef larger;
  if (wanted > kBlockSize) larger = HostFrameRef(HostFrameBuffer::TakeSpare(wanted));
  if (!larger) {
    larger =
        HostFrameRef(HostFrameBuffer::Create(std::max(kBlockSize, std::min(wanted, 2 * have))));
  }
  if (!larger) return false;
  if (have > 0) memcpy(larger->Bytes(), block->Bytes() + begin, have);
  block = std::move(larger);
  begin = 0;
  end = have;
  return true;
}

ssize_t HostFrameReader::Receive(int fd, int flags) {
  if (!MakeRoom()) {
    errno = ENOMEM;
    return -1;
  }
  iovec room = {block->Bytes() + end, block->Capacity() - end};
  const ssize_t size = refuseDescriptors ? ReceiveBytesAlone(fd, &room, flags)
                                         : recv(fd, room.iov_base, room.iov_len, flags);
  if (size > 0) {
    const bool known = end - begin >= kHostFrameHeaderSize;
    end += static_cast<size_t>(size);
    if (!known) LookAtHeader();
  } else if (begin == end) {
    const int error = errno;
    block = HostFrameRef();
    begin = end = 0;
    errno = error;
  }
  return size;
}

HostFrameReader::Next HostFrameReader::Take(HostFrameHeader* header, HostFrameSlice* body) {
  if (bad) return Next::kBad;
  if (!HasCompleteFrame()) return Next::kIncomplete;
  *header = next;
  body->bytes = block->Bytes() + begin + kHostFrameHeaderSize;
  body->size = header->bodySize;
  begin += wanted;
  if (begin == end) {
    // Idle connections hold no buffer.
    body->owner = std::move(block);
    begin = end = 0;
    wanted = kHostFrameHeaderSize;
  } else {
    body->owner = block;
    LookAtHeader();
  }
  return Next::kFrame;
}

bool HostOutQueue::Append(std::span<const iovec> pieces, size_t written) {
  size_t left = 0;
  for (const iovec& piece : pieces) left += piece.iov_len;
  left -= written;
  HostFrameSlice block;
  block.owner = HostFrameRef(HostFrameBuffer::Create(left));
  // Room for the entry comes first: a frame that has begun must not be lost by an exception.
  if (!block.owner || !HostGuard([&] { blocks.emplace_back(); })) return false;
  block.bytes = block.owner->Bytes();
  block.size = left;
  uint8_t* to = block.bytes;
  for (const iovec& piece : pieces) {
    const size_t skip = std::min(written, piece.iov_len);
    written -= skip;
    memcpy(to, static_cast<const uint8_t*>(piece.iov_base) + skip, piece.iov_len - skip);
    to += piece.iov_len - skip;
  }
  blocks.back() = std::move(block);
  size += left;
  return true;
}

void HostOutQueue::DropFirst() {
  blocks[first++].owner = HostFrameRef();
  if (first == blocks.size()) {
    std::vector<HostFrameSlice>().swap(blocks);
    first = 0;
  } else if (first >= kCompactAt && first * 2 >= blocks.size()) {
    blocks.erase(blocks.begin(), blocks.begin() + static_cast<ptrdiff_t>(first));
    first = 0;
  }
}

int HostOutQueue::Flush(int fd) {
  while (!IsEmpty()) {
    HostFrameSlice& block = blocks[first];
    const ssize_t sent = send(fd, block.bytes, block.size, kSendFlags);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno;
    block.bytes += sent;
    block.size -= static_cast<size_t>(sent);
    size -= static_cast<size_t>(sent);
    if (block.size == 0) DropFirst();
  }
  return 0;
}

int HostWritePieces(int fd, std::span<const iovec> pieces, size_t* written) {
  // One piece is the common case.
  if (pieces.size() == 1) return WritePiece(fd, pieces.front(), written);
  constexpr size_t kMaxVectors = 64;
  size_t total = 0;
  for (const iovec& piece : pieces) total += piece.iov_len;
  while (*written < total) {
    iovec vectors[kMaxVectors];
    size_t count = 0;
    size_t skip = *written;
    for (const iovec& piece : pieces) {
      if (skip >= piece.iov_len) {
        skip -= piece.iov_len;
        continue;
      }
      if (count == kMaxVectors) break;
      vectors[count++] = {static_cast<uint8_t*>(piece.iov_base) + skip, piece.iov_len - skip};
      skip = 0;
    }
    msghdr message = {};
    message.msg_iov = vectors;
    message.msg_iovlen = count;
    const ssize_t size = sendmsg(fd, &message, kSendFlags);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    *written += static_cast<size_t>(size);
  }
  return 0;
}

void HostWidenSocket(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}
