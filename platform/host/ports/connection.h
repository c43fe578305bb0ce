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
// Frames come by the socket or by a lane; Receive reads the right one. Frames go out by the lane
// once the client has begun to use it and everything that was queued before has been written.
struct HostConnection {
  uint32_t number = 0;       // within the receiver, never 0
  uint64_t acceptOrder = 0;  // older connections have smaller ones
  int descriptor = -1;
  HostPeer peer;
  HostFrameReader in{HostFrameReader::Passing::kTake};
  HostOutQueue out;

  std::unique_ptr<HostServerLane> lane;  // accepted, or null
  bool readsLane = false;   // the socket has been emptied: it only reports the peer's end
  bool writesLane = false;  // all that waits in `out` goes by the lane
  bool hungUp = false;      // the end of the socket's stream has been seen

  uint32_t interest = 0;      // epoll events it is watched for; 0: it is not in the epoll sets
  uint64_t lastActivity = 0;  // counted for the process: larger is later
  HostAccount account;        // its part of the process's limits
  int dispatching = 0;        // callouts that run for its requests
  mach_port_t replyRight = MACH_PORT_NULL;  // of its latest request without a reply

  uint64_t sender = 0;    // the peer's thread, known from its first header
  uint32_t waitsFor = 0;  // the number of an older connection of that thread
  bool isWaitedFor = false;
  bool identified = false;
  bool isReady = false;  // is in line for its turn
  HostConnection* nextReady = nullptr;
  bool paused = false;  // not read until the next retry: the intake refused, or memory is short
  bool ended = false;   // nothing more is read

  // Whether a complete frame has been received.
  bool HasFrame() const { return in.HasCompleteFrame(); }
  // Takes it. Returns false if it is neither a request nor an offer.
  bool TakeFrame(HostFrameHeader* header, HostFrameSlice* body) {
    return in.Take(header, body) == HostFrameReader::Next::kFrame &&
           (header->kind == HostFrameKind::kRequest || header->kind == HostFrameKind::kLaneOffer);
  }

  // Like HostFrameReader::Receive. Reads the socket until it is empty, and after that the lane.
  // Returns 0 when both have ended.
  ssize_t Receive();

  // Both write as much as can be taken now. They return 0, EAGAIN if something is left, or another
  // error number if the connection is broken.
  int Write(std::span<const iovec> pieces, size_t* written);
  int Flush() { return writesLane ? lane->Flush(out) : out.Flush(descriptor); }
  // Whether one of its requests has arrived and has no reply yet.
  bool HasRequest() {
    return dispatching > 0 || replyRight != MACH_PORT_NULL || HasFrame() ||
           (lane != nullptr && lane->HasBytes());
  }
};
