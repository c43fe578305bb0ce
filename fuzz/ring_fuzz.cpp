#include <sanitizer/asan_interface.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <algorithm>

#include "platform/host/base/byte_order.h"
#include "platform/host/wire/ring.h"

// Both ends of a ring whose peer is hostile. The input is a direction and a list of steps; a step
// is a call of one end, or the peer writing to any word or any byte that it shares. Neither end may
// ever count more room or more bytes than a ring has, leave the ring, or mend after an impossible
// position. Until the peer interferes, all bytes arrive in order and every look succeeds.

namespace {

constexpr size_t kStepSize = 4;  // the action, and three bytes of its arguments
constexpr size_t kMostSize = 512;
constexpr uint8_t kGuardByte = 0xA5;
constexpr size_t kPeriod = 251;
// The words of each direction, by their documented offsets.
constexpr size_t kWrittenAt[] = {128, 512};
constexpr size_t kReadAt[] = {256, 640};

alignas(128) uint8_t sLane[kHostLaneSize];
alignas(128) uint8_t sStatusPage[kHostStatusPageSize];
uint8_t sBytes[kHostRingSize + 1];
uint8_t sPattern[kPeriod + kHostRingSize];  // the bytes of the stream, from any offset on

void Require(bool condition) {
  if (!condition) abort();
}

// Makes the sanitizer report every access to the ring of the other direction.
void Forbid(int direction, bool isForbidden) {
  const uint8_t* other = sLane + kHostLaneControlSize + (1 - direction) * kHostRingSize;
  if (isForbidden) {
    ASAN_POISON_MEMORY_REGION(other, kHostRingSize);
  } else {
    ASAN_UNPOISON_MEMORY_REGION(other, kHostRingSize);
  }
}

bool FillPattern() {
  for (size_t i = 0; i < sizeof sPattern; ++i) sPattern[i] = static_cast<uint8_t>(i % kPeriod);
  return true;
}

class Session {
 public:
  explicit Session(int way) : direction(way) {
    memset(sLane, 0, kHostLaneControlSize);
    memset(sStatusPage, 0, sizeof sStatusPage);
    HostFormatLane(sLane);
    Forbid(direction, true);
    const auto typed = static_cast<HostRingDirection>(direction);
    producer = HostRingProducer(sLane, typed, HostServerSleepWord(sStatusPage));
    consumer = HostRingConsumer(sLane, typed);
  }
  ~Session() { Forbid(direction, false); }

  void Step(const uint8_t* step) {
    // Small counts more often than large ones.
    uint32_t number = HostLoadBig16(step + 2);
    if (step[1] % 4 == 0) number = number * 4 + step[1] / 64;
    switch (step[0] % 16) {
      case 0:
        return Write(number);
      case 1:
        return WritePieces(number);
      case 2:
        (void)producer.Publish();
        published = written;
        return;
      case 3:
        return LookForRoom();
      case 4:
        return number % 2 == 0 ? producer.AnnounceWait() : producer.WithdrawWait();
      case 5:
        return LookForBytes();
      case 6:
        return Read(number);
      case 7:
        return Peek(number);
      case 8:
        (void)consumer.Release();
        return;
      case 9:
        return number % 2 == 0 ? sleeper.Announce() : sleeper.Withdraw();
      case 10:
        return Interfere(8 * (number % (kHostLaneControlSize / 8)), step[3]);
      case 11:
        return Interfere(kWrittenAt[direction], step[3]);
      case 12:
        return Interfere(kReadAt[direction], step[3]);
      case 13:  // near the present value
        return MoveWord(number % 2 == 0 ? kWrittenAt[direction] : kReadAt[direction], step[1],
                        step[2]);
      case 14:
        isTampered = true;
        memset(sLane + kHostLaneControlSize + direction * kHostRingSize + number % kHostRingSize,
               step[3], 1);
        return;
      default:
        isTampered = true;
        memset(sStatusPage, step[3], sizeof(uint32_t));
        return;
    }
  }

  void Check() const {
    Require(producer.Room() <= kHostRingSize && consumer.Available() <= kHostRingSize);
    if (isTampered) return;
    Require(!producerBroken && !consumerBroken);
    Require(consumer.Available() <= published - taken);
    Require(producer.Room() <= kHostRingSize - (written - taken));
  }

 private:
  // The stream's bytes from `offset` on.
  static const uint8_t* Stream(size_t offset) { return sPattern + offset % kPeriod; }

  void Write(size_t count) {
    count %= kHostRingSize + 1;
    const size_t room = producer.Room();
    const size_t copied = producer.Write(Stream(written), count);
    Require(copied == std::min(count, room));
    written += copied;
  }

  void WritePieces(size_t count) {
    count %= kHostRingSize + 1;
    const size_t first = count / 3;
    auto* bytes = const_cast<uint8_t*>(Stream(written));
    const iovec pieces[] = {{bytes, first}, {bytes + first, count - first}};
    size_t done = 0;
    const int err = producer.Write(pieces, &done);
    Require(done <= count && (err != 0 || done == count));
    if (err == EBADMSG) producerBroken = true;
    if (producerBroken) Require(err == EBADMSG);
    written += done;
  }

  void LookForRoom() {
    const bool sound = producer.Look();
    Require(!sound || !producerBroken);
    producerBroken = !sound;
  }

  void LookForBytes() {
    const size_t before = consumer.Available();
    const bool sound = consumer.Look();
    Require(!sound || !consumerBroken);
    Require(consumer.Available() >= before);
    consumerBroken = !sound;
  }

  void CheckBytes(size_t count) const {
    if (isTampered) return;
    Require(memcmp(sBytes, Stream(taken), count) == 0);
  }

  void Read(size_t count) {
    count %= kHostRingSize + 1;
    const size_t available = consumer.Available();
    sBytes[count] = kGuardByte;
    const size_t copied = consumer.Read(sBytes, count);
    Require(copied == std::min(count, available) && sBytes[count] == kGuardByte);
    CheckBytes(copied);
    taken += copied;
  }

  void Peek(size_t count) {
    count %= 512;
    const size_t available = consumer.Available();
    const bool isThere = consumer.Peek(sBytes, count);
    Require(isThere == (count <= available) && consumer.Available() == available);
    if (!isThere) return;
    CheckBytes(count);
    consumer.Skip(count);
    taken += count;
  }

  void Interfere(size_t offset, uint8_t value) {
    isTampered = true;
    HostStoreBig32(sLane + offset, value * 0x01010101u);
  }

  void MoveWord(size_t offset, uint8_t high, uint8_t low) {
    isTampered = true;
    const auto by = static_cast<uint32_t>(static_cast<int8_t>(high)) * 4096 + low;
    HostStoreBig32(sLane + offset, HostLoadBig32(sLane + offset) + by);
  }

  const int direction;
  HostRingProducer producer;
  HostRingConsumer consumer;
  HostSleeper sleeper{HostServerSleepWord(sStatusPage)};
  size_t written = 0, published = 0, taken = 0;  // bytes of the stream
  bool producerBroken = false, consumerBroken = false;
  bool isTampered = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > kMostSize) return 0;
  [[maybe_unused]] static const bool isFilled = FillPattern();
  Session session(data[0] % 2);
  for (size_t at = 1; at + kStepSize <= size; at += kStepSize) {
    session.Step(data + at);
    session.Check();
  }
  return 0;
}
