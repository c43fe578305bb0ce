#pragma once

#include <mach/mach.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include "platform/host/ports/endpoint.h"
#include "platform/host/ports/intake.h"
#include "platform/host/ports/lane.h"
#include "platform/host/wire/frame_stream.h"

// The server's end of one client thread's connection: plain state, kept and guarded by its
// receiver.
//
//   open --end of stream, or given up--> ended --frames dispatched, replies written--> dropped
//   open, ended --broken stream, error, over a limit--> dropped
//
// Frames come by the socket or by a lane: Receive knows which. What is written goes by the lane
// once the client has begun to use it and all that was written before is out.
struct HostConnection {
  uint32_t number = 0;       // its name inside the receiver
  uint64_t acceptOrder = 0;  // older connections have smaller ones
  int descriptor = -1;
  HostPeer peer;
  HostFrameReader in{HostFrameReader::Passing::kTake};
  HostOutQueue out;

  std::unique_ptr<HostServerLane> lane;  // accepted, or null
  bool readsLane = false;   // the socket has been emptied: it only reports the peer's end
  bool writesLane = false;  // all that waits in `out` goes by the lane
  bool hungUp = false;      // the end of the socket's stream has been seen

  uint32_t interest = 0;                    // epoll events asked for; 0: not in the epoll sets
  uint64_t lastActivity = 0;                // counted in the process: larger is later
  HostAccount account;                      // what it holds of the process's limits
  int dispatching = 0;                      // callouts that run for its requests
  mach_port_t replyRight = MACH_PORT_NULL;  // of its latest request without a reply

  uint64_t sender = 0;    // the peer's thread, known from its first header
  uint32_t waitsFor = 0;  // an older connection of that thread, not yet drained
  bool isWaitedFor = false;
  bool identified = false;
  bool isReady = false;  // stands in line for its turn
  HostConnection* nextReady = nullptr;
  bool paused = false;  // not read on for a moment: the intake refused, or there is no memory
  bool ended = false;   // nothing more comes

  // A complete frame is here.
  bool HasFrame() const { return in.HasCompleteFrame(); }
  // Takes it. False when what came is neither a request nor an offer.
  bool TakeFrame(HostFrameHeader* header, HostFrameSlice* body) {
    return in.Take(header, body) == HostFrameReader::Next::kFrame &&
           (header->kind == HostFrameKind::kRequest || header->kind == HostFrameKind::kLaneOffer);
  }

  // Takes what has come, as HostFrameReader::Receive: first all that came by the socket, then what
  // came by the lane. 0 when both are at their end.
  ssize_t Receive();

  // Write what can be taken now. Result: 0, or errno: EAGAIN when something is left.
  int Write(std::span<const iovec> pieces, size_t* written);
  int Flush() { return writesLane ? lane->Flush(out) : out.Flush(descriptor); }
  // A request of it has not been answered yet, or not even been looked at.
  bool HasRequest() {
    return dispatching > 0 || replyRight != MACH_PORT_NULL || HasFrame() ||
           (lane != nullptr && lane->HasBytes());
  }
};
