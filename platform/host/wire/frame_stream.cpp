#include "platform/host/wire/frame_stream.h"

#include <sys/socket.h>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>

#include <algorithm>
#include <utility>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/wire/ring.h"

namespace {

// The size of a connection's first block: it holds many small frames, or the beginning of a large
// one. A frame with a parameter of 64 KiB fits whole.
constexpr size_t kBlockSize = size_t{68} << 10;
// The least room for a receive call while no frame's size is known.
constexpr size_t kLeastRoom = size_t{4} << 10;
// The size of the send buffer; the kernel cuts it to its own limit. More makes a large frame slower
// again, because the bytes under way no longer fit the processor's cache.
constexpr int kSendBuffer = 1 << 18;
constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
// Queued blocks are moved to the beginning once so many before them have been written.
constexpr size_t kCompactAt = 64;
// So many bytes are taken out of a ring before their room is given back.
constexpr size_t kRingPart = size_t{64} << 10;

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

// Fails with EBADMSG if the peer has passed a file descriptor, which is then not installed. (A
// plain recv is cheaper, but the kernel drops file descriptors there without a report.)
ssize_t ReceiveBytesAlone(int fd, iovec* room, int flags) {
  msghdr message = {};
  message.msg_iov = room;
  message.msg_iovlen = 1;
  const ssize_t size = recvmsg(fd, &message, flags | MSG_CMSG_CLOEXEC);
  if (size <= 0 || (message.msg_flags & MSG_CTRUNC) == 0) return size;
  errno = EBADMSG;
  return -1;
}

// The number of file descriptors in a control message, and its data.
size_t DescriptorsIn(const cmsghdr& control) {
  if (control.cmsg_level != SOL_SOCKET || control.cmsg_type != SCM_RIGHTS) return 0;
  return (control.cmsg_len - CMSG_LEN(0)) / sizeof(int);
}

}  // namespace

HostPassedPair& HostPassedPair::operator=(HostPassedPair&& other) noexcept {
  std::swap(descriptors, other.descriptors);
  std::swap(generation, other.generation);
  return *this;
}

void HostPassedPair::Close() {
  for (int& fd : descriptors) {
    const int closed = std::exchange(fd, -1);
    if (generation == HostForkGeneration()) HostCloseDescriptor(closed);
  }
}

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

// Provides free bytes after `end`: as many as the rest of the frame that is being received, but at
// most as many as have been received of it, or one block.
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
  ssize_t size = 0;
  bool havePassed = false;
  switch (passing) {
    case Passing::kDrop:
      size = recv(fd, room.iov_base, room.iov_len, flags);
      break;
    case Passing::kRefuse:
      size = ReceiveBytesAlone(fd, &room, flags);
      break;
    case Passing::kTake:
      size = ReceiveTaking(fd, room, flags, &havePassed);
      break;
  }
  if (size > 0) {
    Grow(static_cast<size_t>(size));
    if (havePassed && !CompleteCarrier(fd)) {
      passed.Close();
      return errno = EBADMSG, -1;
    }
  } else if (begin == end) {
    const int error = errno;
    block = HostFrameRef();
    begin = end = 0;
    errno = error;
  }
  return size;
}

void HostFrameReader::Grow(size_t size) {
  const bool known = end - begin >= kHostFrameHeaderSize;
  end += size;
  if (!known) LookAtHeader();
}

// The kernel ends a receive call after the bytes that file descriptors came with. So those of two
// frames never mix, and the last byte of the call belongs to the frame that they came with.
ssize_t HostFrameReader::ReceiveTaking(int fd, const iovec& room, int flags, bool* havePassed) {
  iovec where = room;
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))];
  msghdr message = {};
  message.msg_iov = &where;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  HostPassedPair arrived;
  arrived.generation = HostForkGeneration();
  size_t count = 0;
  bool isShort = false;
  ssize_t size = 0;
  {
    HostDescriptorOpening opening;
    size = recvmsg(fd, &message, flags | MSG_CMSG_CLOEXEC);
    if (size < 0) return size;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(&message, each)) {
      for (size_t i = 0; i < DescriptorsIn(*each); i++) {
        int taken = -1;
        memcpy(&taken, CMSG_DATA(each) + i * sizeof taken, sizeof taken);
        assert(count < 2);  // the control buffer has no room for more
        arrived.descriptors[count] = opening.Enter(taken, HostDescriptorKind::kWake);
        isShort |= arrived.descriptors[count] < 0;
        count++;
      }
    }
  }
  if ((message.msg_flags & MSG_CTRUNC) != 0) {
    // Fewer than there was room for: this process has no free file descriptors for the rest.
    if (count < 2) isShort = true;
    if (count == 2 && !isShort) return errno = EBADMSG, -1;
  }
  if (count == 0 && !isShort) return size;
  if (passedAt != 0 || size == 0) return errno = EBADMSG, -1;  // a second frame carries some
  passed = std::move(arrived);
  passedCount = count;
  passedShort = isShort;
  *havePassed = true;
  return size;
}

// Whether the received bytes end with a frame that carries file descriptors. If they end with part
// of a frame, `*begun` is the size of that part.
bool HostFrameReader::EndsWithCarrier(size_t* begun) const {
  HostFrameHeader header;
  *begun = 0;
  for (size_t at = begin; at < end; at += header.FrameSize()) {
    if (end - at < kHostFrameHeaderSize) {
      *begun = end - at;
      return false;
    }
    if (!HostDecodeFrameHeader(block->Bytes() + at, &header)) return false;
  }
  return HostCarriesDescriptors(header.kind);
}

// File descriptors have come with the last bytes. Their frame is sent in one piece, so its rest can
// be read at once if the block had no room for all of it. Returns false if it is not such a frame.
bool HostFrameReader::CompleteCarrier(int fd) {
  size_t begun = 0;
  if (!EndsWithCarrier(&begun)) {
    if (begun == 0) return false;
    const size_t missing = kHostFrameHeaderSize - begun;
    if (block->Capacity() - end < missing) {
      const size_t have = end - begin;
      HostFrameRef larger(HostFrameBuffer::Create(have + missing));
      if (!larger) return false;
      memcpy(larger->Bytes(), block->Bytes() + begin, have);
      block = std::move(larger);
      begin = 0;
      end = have;
    }
    const ssize_t size = recv(fd, block->Bytes() + end, missing, MSG_DONTWAIT);
    if (size != static_cast<ssize_t>(missing)) return false;
    Grow(missing);
    if (!EndsWithCarrier(&begun)) return false;
  }
  passedAt = end - begin;
  return true;
}

ssize_t HostFrameReader::Receive(HostRingConsumer& ring) {
  const bool isSound = ring.Look();
  if (ring.Available() == 0) {
    errno = isSound ? EAGAIN : EBADMSG;
    return -1;
  }
  if (!MakeRoom()) {
    errno = ENOMEM;
    return -1;
  }
  const size_t size = ring.Read(block->Bytes() + end, std::min(block->Capacity() - end, kRingPart));
  Grow(size);
  return static_cast<ssize_t>(size);
}

// Whether the complete frame at `begin` came with the file descriptors that its kind requires.
bool HostFrameReader::ArePassedRight() {
  const bool came = passedAt != 0 && passedAt <= wanted;
  if (came != HostCarriesDescriptors(next.kind)) return false;
  if (passedAt == 0) return true;
  passedAt = came ? 0 : passedAt - wanted;
  if (!came) return true;
  if (passedShort) passed.Close();
  return passedShort || passedCount == 2;
}

HostFrameReader::Next HostFrameReader::Take(HostFrameHeader* header, HostFrameSlice* body) {
  if (bad) return Next::kBad;
  if (!HasCompleteFrame()) return Next::kIncomplete;
  if (!ArePassedRight()) {
    passed.Close();
    bad = true;
    return Next::kBad;
  }
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
  // Makes room for the entry first: an exception must not lose a frame that has begun.
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

void HostOutQueue::Advance(size_t count) {
  HostFrameSlice& block = blocks[first];
  block.bytes += count;
  block.size -= count;
  size -= count;
  if (block.size == 0) DropFirst();
}

int HostOutQueue::Flush(int fd) {
  while (!IsEmpty()) {
    const HostFrameSlice& block = blocks[first];
    const ssize_t sent = send(fd, block.bytes, block.size, kSendFlags);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno;
    Advance(static_cast<size_t>(sent));
  }
  return 0;
}

int HostOutQueue::Flush(HostRingProducer& ring) {
  while (!IsEmpty()) {
    const iovec piece = {blocks[first].bytes, blocks[first].size};
    size_t written = 0;
    const int error = ring.Write({&piece, 1}, &written);
    if (written > 0) Advance(written);
    if (error != 0) return error;
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
