#pragma once

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/wire/ring.h"

// Shared by the tests of the rings.

using Bytes = std::vector<uint8_t>;

// The bytes that a test stream has from `offset` on. Their period is prime to the ring's size.
inline Bytes StreamBytes(size_t offset, size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>((offset + i) % 251);
  return bytes;
}

// Rings and waits through a pipe or an eventfd that only this test reads.
class Doorbell {
 public:
  explicit Doorbell(int descriptor) : fd(descriptor) {}
  bool Ring() const {
    const uint64_t one = 1;
    return write(fd, &one, sizeof one) == sizeof one;
  }
  // Returns false if there was no ring within `limitMs`: a wake-up was lost.
  bool Wait(int limitMs = 30000) const {
    pollfd entry = {fd, POLLIN, 0};
    uint64_t rings = 0;
    return poll(&entry, 1, limitMs) == 1 && read(fd, &rings, sizeof rings) > 0;
  }

 private:
  int fd;
};

// Writes all of `bytes` and sleeps while the ring is full. Rings `peer` if the ring requires it.
inline bool WriteAll(HostRingProducer& ring, const Bytes& bytes, Doorbell peer, Doorbell own) {
  const iovec piece = {const_cast<uint8_t*>(bytes.data()), bytes.size()};
  size_t done = 0;
  for (;;) {
    const int err = ring.Write({&piece, 1}, &done);
    if (ring.Publish() && !peer.Ring()) return false;
    if (err == 0) return true;
    if (err != EAGAIN) return false;
    ring.AnnounceWait();
    const bool sound = ring.Look();
    const bool rung = !sound || ring.Room() > 0 || own.Wait();
    ring.WithdrawWait();
    if (!sound || !rung) return false;
  }
}

// Reads 1 to `most` bytes and sleeps while the ring is empty. Returns no bytes after a failure.
inline Bytes ReadSome(HostRingConsumer& ring, size_t most, HostSleeper& sleeper, Doorbell peer,
                      Doorbell own) {
  while (ring.Available() == 0) {
    if (!ring.Look()) return {};
    if (ring.Available() > 0) break;
    sleeper.Announce();
    const bool sound = ring.Look();
    const bool rung = !sound || ring.Available() > 0 || own.Wait();
    sleeper.Withdraw();
    if (!sound || !rung) return {};
  }
  Bytes bytes(most);
  bytes.resize(ring.Read(bytes.data(), bytes.size()));
  if (ring.Release() && !peer.Ring()) return {};
  return bytes;
}
