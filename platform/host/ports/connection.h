#pragma once

#include <mach/mach.h>
#include <sys/types.h>

#include <cstdint>

#include "platform/host/ports/endpoint.h"
#include "platform/host/ports/intake.h"
#include "platform/host/wire/frame_stream.h"

// The server's end of one client thread's connection: plain state, kept and guarded by its
// receiver.
//
//   open --end of stream, or given up--> ended --frames dispatched, replies written--> dropped
//   open, ended --broken stream, error, over a limit--> dropped
//
// Whoever takes turns asks for frames through HasFrame and TakeFrame and does not care which way
// they came.
struct HostConnection {
  uint32_t number = 0;       // its name inside the receiver
  uint64_t acceptOrder = 0;  // older connections have smaller ones
  int descriptor = -1;
  HostPeer peer;
  HostFrameReader in;
  HostOutQueue out;

  uint32_t interest = 0;                    // epoll events asked for; 0: not in the epoll sets
  uint64_t lastActivity = 0;                // counted in the process: larger is later
  HostAccount account;                      // what it holds of the process's limits
  int dispatching = 0;                      // callouts that run for its requests
  mach_port_t replyRight = MACH_PORT_NULL;  // of its latest unanswered request

  uint64_t sender = 0;    // the peer's thread, known from its first header
  uint32_t waitsFor = 0;  // an older connection of that thread, not yet drained
  bool isWaitedFor = false;
  bool identified = false;
  bool isReady = false;  // stands in line for its turn
  HostConnection* nextReady = nullptr;
  bool paused = false;  // not read on for a moment: the intake refused, or there is no memory
  bool ended = false;   // nothing more comes

  // A complete request is here.
  bool HasFrame() const { return in.HasCompleteFrame(); }
  // Takes it. False when what came is not a request.
  bool TakeFrame(HostFrameHeader* header, HostFrameSlice* body) {
    return in.Take(header, body) == HostFrameReader::Next::kFrame &&
           header->kind == HostFrameKind::kRequest;
  }
  // A request of it has not been answered yet, or not even been looked at.
  bool HasRequest() const { return dispatching > 0 || replyRight != MACH_PORT_NULL || HasFrame(); }
};
