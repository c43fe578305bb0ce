#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/host/wire/ring.h"

// The parts of a lane's offer, made by the test itself, right or wrong.
struct RawOffer {
  RawOffer() = default;
  RawOffer(RawOffer&& other) noexcept;
  ~RawOffer();
  // A sealed memfd with a lane in it, and an eventfd.
  static RawOffer Make();
  // Sends the frame of an offer with so many file descriptors; the last one is repeated.
  bool SendOn(int socket, size_t count = 2) const;

  int file = -1;
  int bell = -1;
};

// RawLane is the client's end of a lane that the test reads and writes itself. One thread at a
// time.
class RawLane {
 public:
  // Offers a lane on a connection and waits at most 20 s for the answer. Returns null if the server
  // refuses it or does not answer.
  static std::unique_ptr<RawLane> On(int socket);
  ~RawLane();

  // The next three do not wait.
  size_t Write(const void* bytes, size_t size);
  void WriteUnrung(const void* bytes, size_t size);  // like a client that dies before it rings
  size_t Read(void* bytes, size_t size);
  bool IsAllTaken() { return out.Look() && out.Room() == kHostRingSize; }

  // Waits until there may be bytes, or room. Returns false if the peer has hung up, or at `end`.
  bool Wait(int socket, bool forRoom, int64_t end);

  void* Memory() { return lane; }
  void Ring();          // the server's doorbell
  bool FillDoorbell();  // fills its counter

 private:
  RawLane() = default;

  RawOffer offer;
  void* lane = nullptr;
  void* status = nullptr;
  int doorbell = -1;
  HostRingProducer out;
  HostRingConsumer in;
  HostSleeper sleeper;
};
