#include "platform/host/frame_stream.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/socket.h>

#include <algorithm>
#include <new>

namespace {

// What a connection reads into at first: many small frames, or the beginning of a large one.
constexpr size_t kBlockSize = size_t{64} << 10;
// The least room worth a receive call when no frame's size is known.
constexpr size_t kLeastRoom = size_t{4} << 10;
// Queued bytes are moved to the front once so many lie written before them.
constexpr size_t kCompactAt = size_t{256} << 10;

}  // namespace

bool HostFrameReader::HasCompleteFrame() const {
  return !bad && end - begin >= kHostFrameHeaderSize && end - begin >= wanted;
}

bool HostFrameReader::Peek(HostFrameHeader* header) const {
  return HasCompleteFrame() && HostDecodeFrameHeader(block->Bytes() + begin, header);
}

void HostFrameReader::LookAtHeader() {
  wanted = kHostFrameHeaderSize;
  if (bad || end - begin < kHostFrameHeaderSize) return;
  HostFrameHeader header;
  if (HostDecodeFrameHeader(block->Bytes() + begin, &header)) {
    wanted = header.FrameSize();
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
    larger = HostFrameRef(HostFrameBuffer::Create(std::max(kBlockSize, std::min(wanted, 2 * have))));
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
  msghdr message = {};
  message.msg_iov = &room;
  message.msg_iovlen = 1;
  const ssize_t size = recvmsg(fd, &message, flags | MSG_CMSG_CLOEXEC);
  const int error = errno;
  if (size > 0 && (message.msg_flags & MSG_CTRUNC) != 0) {
    errno = EBADMSG;
    return -1;
  }
  if (size > 0) {
    const bool known = end - begin >= kHostFrameHeaderSize;
    end += static_cast<size_t>(size);
    if (!known) LookAtHeader();
  } else if (begin == end) {
    block = HostFrameRef();
    begin = end = 0;
  }
  errno = error;
  return size;
}

HostFrameReader::Next HostFrameReader::Take(HostFrameHeader* header, HostFrameSlice* body) {
  if (bad) return Next::kBad;
  if (!HasCompleteFrame()) return Next::kIncomplete;
  if (!HostDecodeFrameHeader(block->Bytes() + begin, header)) return Next::kBad;
  body->owner = block;
  body->bytes = block->Bytes() + begin + kHostFrameHeaderSize;
  body->size = header->bodySize;
  begin += header->FrameSize();
  LookAtHeader();
  if (begin == end) {
    // Idle connections hold no buffer.
    block = HostFrameRef();
    begin = end = 0;
  }
  return Next::kFrame;
}

bool HostOutQueue::Append(const std::vector<iovec>& pieces, size_t written) {
  try {
    for (const iovec& piece : pieces) {
      const size_t skip = std::min(written, piece.iov_len);
      written -= skip;
      const auto* first = static_cast<const uint8_t*>(piece.iov_base);
      bytes.insert(bytes.end(), first + skip, first + piece.iov_len);
    }
    frameEnds.push_back(bytes.size());
  } catch (const std::bad_alloc&) {
    bytes.resize(frameEnds.empty() ? sent : frameEnds.back());
    return false;
  }
  return true;
}

void HostOutQueue::DropSent() {
  while (!frameEnds.empty() && frameEnds.front() <= sent) frameEnds.pop_front();
  if (IsEmpty()) {
    std::vector<uint8_t>().swap(bytes);
    sent = 0;
  } else if (sent >= kCompactAt && sent * 2 >= bytes.size()) {
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(sent));
    for (size_t& frameEnd : frameEnds) frameEnd -= sent;
    sent = 0;
  }
}

int HostOutQueue::Flush(int fd) {
  int error = 0;
  while (error == 0 && !IsEmpty()) {
    const ssize_t size = send(fd, bytes.data() + sent, Size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size >= 0) {
      sent += static_cast<size_t>(size);
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  DropSent();
  return error;
}

int HostWritePieces(int fd, const std::vector<iovec>& pieces, size_t* written) {
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
    const ssize_t size = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    *written += static_cast<size_t>(size);
  }
  return 0;
}
