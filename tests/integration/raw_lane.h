#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/host/wire/ring.h"

// What an offer of a lane consists of, made by the test itself, in the right way or in a wrong one.
struct RawOffer {
  RawOffer() = default;
  RawOffer(RawOffer&& other) noexcept;
  ~RawOffer();
  // A sealed memfd with a lane in it, and an eventfd.
  static RawOffer Make();
  // Sends the frame of an offer with so many of the descriptors, the last one repeated.
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

  // The next three wait neither for room nor for bytes.
  size_t Write(const void* bytes, size_t size);
  void WriteUnrung(const void* bytes, size_t size);  // as who dies before it rings
  size_t Read(void* bytes, size_t size);
  bool IsAllTaken() { return out.Look() && out.Room() == kHostRingSize; }

  // Waits until there may be bytes, or room. False when the other end has hung up, or at `end`.
  bool Wait(int socket, bool forRoom, int64_t end);

  void* Memory() { return lane; }
  void Ring();          // the server's doorbell
  bool FillDoorbell();  // so that its counter takes nothing more

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
