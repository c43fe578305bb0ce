#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <span>

#include "platform/host/ports/connection.h"
#include "platform/host/ports/intake.h"
#include "platform/host/ports/receiver_lanes.h"

// HostReceiverOutput writes what a receiver sends to its clients. What a client does not read at
// once waits in the queue of its connection, up to 8 MiB after the frame that is being written; the
// intake counts what waits. Nothing here blocks but FlushUntil.
//
// Keeps no state of its own: the connections have it. Guarded by its receiver's lock.
class HostReceiverOutput {
 public:
  explicit HostReceiverOutput(HostIntake& limits) : intake(limits) {}

  // The outcome of writing a frame. After the last three the caller drops the connection.
  enum class Outcome {
    kWritten,  // all of it
    kQueued,   // the rest waits, or all of it
    kLost,     // the peer has gone: reading the connection reports the end
    kBroken,   // the connection's lane has an impossible state
    kTooMuch,  // it waits, but more is waiting than a connection may have
    kNoMemory,
  };
  Outcome Write(HostConnection& connection, std::span<const iovec> pieces);

  // Writes as much of the waiting frames as can be taken now. Returns 0, EAGAIN if something is
  // left, or another error number if the connection is broken.
  int Flush(HostConnection& connection);
  // Waits until the peer has read what waits, at most until `end` (monotonic nanoseconds). `lanes`
  // are those of the receiver.
  void FlushUntil(HostConnection& connection, int64_t end, HostReceiverLanes& lanes);
  // Drops what waits.
  void Discard(HostConnection& connection);

 private:
  HostIntake& intake;
};
