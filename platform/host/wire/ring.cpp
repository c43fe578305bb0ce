#include "platform/host/wire/ring.h"

#include <cassert>
#include <cerrno>
#include <cstring>

#include <algorithm>

// The positions count bytes modulo 2^32 and the ring's size is a power of two, so the low bits of a
// position are the offset of its byte, and differences are right across the wrap of both.

namespace {

constexpr uint32_t kMagic = 0x766C744C;  // "vltL"
constexpr uint32_t kVersion = 1;

constexpr size_t kMagicAt = 0;
constexpr size_t kVersionAt = 4;
constexpr size_t kRingSizeAt = 8;
// The words that change, none nearer than this to another: two of the usual cache lines, which some
// processors fetch together, or one of the largest.
constexpr size_t kLine = 128;

// The words of one direction.
struct RingPlaces {
  size_t written;       // by the producer
  size_t read;          // by the consumer
  size_t waitsForRoom;  // the producer's
  size_t bytes;
};
constexpr RingPlaces kPlaces[] = {
    {1 * kLine, 2 * kLine, 3 * kLine, kHostLaneControlSize},                  // kToServer
    {4 * kLine, 5 * kLine, 6 * kLine, kHostLaneControlSize + kHostRingSize},  // kToClient
};
constexpr size_t kClientSleepAt = 7 * kLine;
constexpr size_t kServerGoesAt = 8 * kLine;
constexpr size_t kServerSleepAt = 0;  // in the status page
static_assert(kServerGoesAt + kLine <= kHostLaneControlSize);
static_assert((kHostRingSize & (kHostRingSize - 1)) == 0);

const RingPlaces& PlacesOf(HostRingDirection direction) {
  return kPlaces[static_cast<size_t>(direction)];
}

uint8_t* BytesAt(void* memory, size_t offset) { return static_cast<uint8_t*>(memory) + offset; }

HostSharedWord* WordAt(void* memory, size_t offset) {
  return reinterpret_cast<HostSharedWord*>(BytesAt(memory, offset));
}

// A run of a ring's bytes is in one piece, or in two where it passes the end.
struct Run {
  size_t offset;
  size_t size;   // of the first piece
  size_t again;  // of the second piece, at the ring's beginning
};

Run RunAt(uint32_t position, size_t count) {
  const size_t offset = position & (kHostRingSize - 1);
  const size_t size = std::min(count, kHostRingSize - offset);
  return {offset, size, count - size};
}

void CopyOut(const uint8_t* ring, uint32_t position, void* into, size_t count) {
  const Run run = RunAt(position, count);
  memcpy(into, ring + run.offset, run.size);
  if (run.again > 0) memcpy(static_cast<uint8_t*>(into) + run.size, ring, run.again);
  // The peer may change the ring while the copy is examined. Without this the compiler may assume
  // that no other thread does, and load from the ring again instead of from the copy.
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

void HostFormatLane(void* lane) {
  HostStoreBig32(BytesAt(lane, kMagicAt), kMagic);
  HostStoreBig32(BytesAt(lane, kVersionAt), kVersion);
  HostStoreBig32(BytesAt(lane, kRingSizeAt), kHostRingSize);
  for (const RingPlaces& places : kPlaces) {
    WordAt(lane, places.written)->Store(kHostRingFirstPosition);
    WordAt(lane, places.read)->Store(kHostRingFirstPosition);
  }
}

bool HostIsLane(const void* lane) {
  const auto* bytes = static_cast<const uint8_t*>(lane);
  return HostLoadBig32(bytes + kMagicAt) == kMagic &&
         HostLoadBig32(bytes + kVersionAt) == kVersion &&
         HostLoadBig32(bytes + kRingSizeAt) == kHostRingSize;
}

HostSharedWord* HostClientSleepWord(void* lane) { return WordAt(lane, kClientSleepAt); }

HostSharedWord* HostServerGoesWord(void* lane) { return WordAt(lane, kServerGoesAt); }

HostSharedWord* HostServerSleepWord(void* statusPage) { return WordAt(statusPage, kServerSleepAt); }

const HostSharedWord* HostServerSleepWord(const void* statusPage) {
  return HostServerSleepWord(const_cast<void*>(statusPage));
}

// A sleep that was rung once ends for certain: the eventfd keeps the ring until its waiter has
// seen it. So further publications during that sleep ring no more. The sleeper looks at the ring
// before its next sleep, so its position moves if there was anything for it. That tells two sleeps
// apart even if 2^32 others have passed between them.
bool HostSleepWatch::IsNew(uint32_t number) {
  const uint32_t position = progress->Load();
  if (number == rung && position == rungAt) return false;
  rung = number;
  rungAt = position;
  return true;
}

HostRingProducer::HostRingProducer(void* lane, HostRingDirection direction,
                                   const HostSharedWord* consumerSleep) {
  const RingPlaces& places = PlacesOf(direction);
  ring = BytesAt(lane, places.bytes);
  position = WordAt(lane, places.written);
  peerPosition = WordAt(lane, places.read);
  waiting = HostSleeper(WordAt(lane, places.waitsForRoom));
  consumer = HostSleepWatch(consumerSleep, peerPosition);
}

bool HostRingProducer::Look() {
  if (broken) return false;
  // Sequentially consistent, as every load here: this may be the look after an announcement. It
  // also orders the consumer's copying before what will be written there next.
  const uint32_t now = peerPosition->Load();
  // Between two publications the bytes that the consumer has not read yet only become fewer; a
  // position that goes back, or beyond what was published, makes it larger.
  if (published - now > published - peerRead) {
    broken = true;
    return false;
  }
  peerRead = now;
  return true;
}

size_t HostRingProducer::Write(const void* bytes, size_t count) {
  count = std::min(count, Room());
  const Run run = RunAt(written, count);
  memcpy(ring + run.offset, bytes, run.size);
  if (run.again > 0) memcpy(ring, static_cast<const uint8_t*>(bytes) + run.size, run.again);
  written += static_cast<uint32_t>(count);
  return count;
}

int HostRingProducer::Write(std::span<const iovec> pieces, size_t* done) {
  if (broken) return EBADMSG;
  size_t skip = *done;
  for (const iovec& piece : pieces) {
    if (skip >= piece.iov_len) {
      skip -= piece.iov_len;
      continue;
    }
    const auto* from = static_cast<const uint8_t*>(piece.iov_base) + skip;
    const size_t count = piece.iov_len - skip;
    skip = 0;
    if (Room() < count && !Look()) return EBADMSG;
    const size_t copied = Write(from, count);
    *done += copied;
    if (copied < count) return EAGAIN;
  }
  return 0;
}

bool HostRingProducer::Publish() {
  published = written;
  position->Store(written);
  return consumer.MustRing();
}

HostRingConsumer::HostRingConsumer(void* lane, HostRingDirection direction) {
  const RingPlaces& places = PlacesOf(direction);
  ring = BytesAt(lane, places.bytes);
  position = WordAt(lane, places.read);
  peerPosition = WordAt(lane, places.written);
  producer = HostSleepWatch(WordAt(lane, places.waitsForRoom), peerPosition);
}

bool HostRingConsumer::Look() {
  if (broken) return false;
  // Also orders the producer's copying into the ring before this end's copying out of it.
  const uint32_t now = peerPosition->Load();
  // Counted from what was released: the rest of the ring is not the producer's to write to. What it
  // holds only grows between two releases, so a position that goes back makes it smaller.
  const uint32_t held = now - released;
  if (held > kHostRingSize || held < peerWritten - released) {
    broken = true;
    return false;
  }
  peerWritten = now;
  return true;
}

size_t HostRingConsumer::Read(void* into, size_t count) {
  count = std::min(count, Available());
  CopyOut(ring, read, into, count);
  read += static_cast<uint32_t>(count);
  return count;
}

bool HostRingConsumer::Peek(void* into, size_t count) const {
  if (Available() < count) return false;
  CopyOut(ring, read, into, count);
  return true;
}

void HostRingConsumer::Skip(size_t count) {
  assert(count <= Available());
  read += static_cast<uint32_t>(std::min(count, Available()));
}

bool HostRingConsumer::Release() {
  released = read;
  position->Store(read);
  // A producer that is rung for every frame that leaves a full ring would wake for each alone.
  if (Available() > kHostRingSize / 2) return false;
  return producer.MustRing();
}
