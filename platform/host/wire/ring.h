#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/host/base/byte_order.h"

// A lane is one piece of shared memory between a client and a server: a control page and two rings
// of bytes, one for each direction. This file has its layout, the two ends of a ring, and the words
// by which a side reports that it sleeps. docs/protocol.md has the byte table.
//
// A ring has one producer and one consumer, each used by one thread at a time. The peer may write
// anywhere in the lane at any time, so nothing in it is trusted:
//
// - Each end keeps its own position in private memory and only publishes it.
// - A look at the peer's position loads it once and checks the copy. It has to be within what the
//   ring can hold and must never go back; any other value breaks this end for good.
// - Bytes are copied out before they are examined, and each byte only once.
// - Shared memory holds no pointers and no sizes. All numbers in it are big-endian.
//
// How one side sleeps and the other wakes it (the same for a consumer without bytes and for a
// producer without room):
//
//     the sleeper                          the other side
//     HostSleeper::Announce()              Write, Publish() or Read, Release()
//     Look() at everything it waits for    if that returned true, rings the sleeper's eventfd
//     waits, if there was nothing
//     HostSleeper::Withdraw()
//
// Each side stores one word and then loads the word that the other side stores. All four accesses
// are sequentially consistent, so at least one side sees the other's store and no wake-up gets
// lost. With release and acquire alone both loads could overtake the stores.

inline constexpr size_t kHostRingSize = size_t{256} << 10;  // a power of two
inline constexpr size_t kHostLaneControlSize = 4096;
inline constexpr size_t kHostLaneSize = kHostLaneControlSize + 2 * kHostRingSize;
// Where both positions of a new ring begin: so near to 2^32 that every lane soon passes it, and not
// only those over which gigabytes go.
inline constexpr uint32_t kHostRingFirstPosition = 0xFFFF0000;
// The server's status page, one for each receiver; clients map it for reading only. A new page is
// all zero, which means that the server is awake.
inline constexpr size_t kHostStatusPageSize = 4096;

enum class HostRingDirection : uint8_t { kToServer, kToClient };

// A 32-bit number in shared memory, big-endian.
class HostSharedWord {
 public:
  uint32_t Load(std::memory_order order = std::memory_order_seq_cst) const {
    const uint32_t loaded = raw.load(order);
    return kHostIsBigEndian ? loaded : HostSwap32(loaded);
  }
  void Store(uint32_t value, std::memory_order order = std::memory_order_seq_cst) {
    raw.store(kHostIsBigEndian ? value : HostSwap32(value), order);
  }

 private:
  std::atomic<uint32_t> raw;
};
static_assert(sizeof(HostSharedWord) == 4 && std::atomic<uint32_t>::is_always_lock_free);

// Makes a lane out of kHostLaneSize bytes that are all zero. No other process may have them yet.
void HostFormatLane(void* lane);
// Whether a lane that a peer made has the layout of this version. Only for refusing an offer: the
// peer may change the lane at any time, and nothing here depends on the result.
bool HostIsLane(const void* lane);

// The words by which the client and the server report that they sleep.
HostSharedWord* HostClientSleepWord(void* lane);
HostSharedWord* HostServerSleepWord(void* statusPage);
const HostSharedWord* HostServerSleepWord(const void* statusPage);
// 1 once the server takes nothing more than what it reads next, and will hang up. It stores this,
// and then reads the ring to its end; a client publishes, and then loads this. So a frame is read,
// or its sender sees the word.
HostSharedWord* HostServerGoesWord(void* lane);

// The side that sleeps. Its word is 0 while it is awake, else the number of its sleep, which is a
// different one each time.
class HostSleeper {
 public:
  HostSleeper() = default;
  explicit HostSleeper(HostSharedWord* slot) : word(slot) {}  // borrowed

  // Reports that this side is about to sleep. Look at everything it waits for once more after this
  // and before it waits.
  void Announce() {
    if (++number == 0) ++number;
    word->Store(number);
  }
  // Call it after each wait, however it ended, and when there was no need to wait. Each wait needs
  // an announcement of its own: the other side rings once for each.
  void Withdraw() { word->Store(0, std::memory_order_relaxed); }

 private:
  HostSharedWord* word = nullptr;
  uint32_t number = 0;
};

// The side that rings a sleeper, once for each sleep.
class HostSleepWatch {
 public:
  HostSleepWatch() = default;
  // `position` is the sleeper's own position in the ring, which moves when it has been woken.
  HostSleepWatch(const HostSharedWord* sleep, const HostSharedWord* position)
      : word(sleep), progress(position) {}

  // Call it after publishing what the sleeper may wait for. Returns true if it has to be rung.
  bool MustRing() {
    const uint32_t number = word->Load();
    if (number == 0) [[likely]] {
      rung = 0;
      return false;
    }
    return IsNew(number);
  }

 private:
  bool IsNew(uint32_t number);

  const HostSharedWord* word = nullptr;
  const HostSharedWord* progress = nullptr;
  uint32_t rung = 0;  // the sleep that was rung last; 0: none
  uint32_t rungAt = 0;
};

// The end that writes. Example, for a frame that fits:
//
//   if (ring.Room() < size && !ring.Look()) return broken;
//   if (ring.Room() < size) wait for room
//   ring.Write(header, headerSize);
//   ring.Write(body, bodySize);
//   if (ring.Publish()) ring the consumer's eventfd
class HostRingProducer {
 public:
  HostRingProducer() = default;
  // Borrows both: a lane of kHostLaneSize bytes in which nothing has been sent this way yet, and
  // the word by which the consumer reports that it sleeps.
  HostRingProducer(void* lane, HostRingDirection direction, const HostSharedWord* consumerSleep);

  // Reads the consumer's position. Returns false from its first impossible position on: the
  // connection has to end, as after a torn frame.
  [[nodiscard]] bool Look();
  // Bytes that can be written, as of the last Look that returned true.
  size_t Room() const { return kHostRingSize - (written - peerRead); }

  // Copies at most Room() bytes; the consumer does not see them yet. Returns how many.
  size_t Write(const void* bytes, size_t count);

  // Writes the pieces, beginning `*done` bytes in, as far as there is room, and moves `*done` on.
  // Looks by itself when the room it knows of is too small. Returns 0 if everything is written,
  // else EAGAIN (the ring is full) or EBADMSG (Look failed).
  int Write(std::span<const iovec> pieces, size_t* done);

  // Shows the consumer everything that was written. Returns true if it sleeps and has to be rung.
  [[nodiscard]] bool Publish();

  // For a producer without room that has published all it wrote; to be used as HostSleeper. The
  // consumer rings when at least half of the ring is free. Look once more after AnnounceWait, and
  // wait only if there is still no room.
  void AnnounceWait() { waiting.Announce(); }
  void WithdrawWait() { waiting.Withdraw(); }

 private:
  uint8_t* ring = nullptr;
  HostSharedWord* position = nullptr;
  const HostSharedWord* peerPosition = nullptr;
  HostSleeper waiting;
  HostSleepWatch consumer;
  // Positions count bytes modulo 2^32.
  uint32_t written = kHostRingFirstPosition;
  uint32_t published = kHostRingFirstPosition;
  uint32_t peerRead = kHostRingFirstPosition;  // as last seen
  bool broken = false;
};

// The end that reads. Its owner reports that it sleeps through a HostSleeper, because a server has
// one for all its lanes. Call Release before the owner sleeps.
class HostRingConsumer {
 public:
  HostRingConsumer() = default;
  // Borrows a lane of kHostLaneSize bytes in which nothing has been sent this way yet.
  HostRingConsumer(void* lane, HostRingDirection direction);

  // Reads the producer's position. Returns false from its first impossible position on: the
  // connection has to end, as after a torn frame, once the bytes that are still available have been
  // read.
  [[nodiscard]] bool Look();
  // Bytes that can be read, as of the last Look that returned true.
  size_t Available() const { return peerWritten - read; }

  // Takes at most Available() bytes into `into`. Returns how many.
  size_t Read(void* into, size_t count);

  // Copies the next `count` bytes and leaves them there. Returns false, with nothing copied, if
  // fewer are available. The peer may still change them: keep the copy, and Skip them before
  // reading on.
  bool Peek(void* into, size_t count) const;
  void Skip(size_t count);  // at most Available()

  // Gives the room of all that was taken back to the producer, which may then write there. Returns
  // true if it waits for room and has to be rung.
  [[nodiscard]] bool Release();

 private:
  const uint8_t* ring = nullptr;
  HostSharedWord* position = nullptr;
  const HostSharedWord* peerPosition = nullptr;
  HostSleepWatch producer;
  uint32_t read = kHostRingFirstPosition;
  uint32_t released = kHostRingFirstPosition;
  uint32_t peerWritten = kHostRingFirstPosition;  // as last seen
  bool broken = false;
};
