#pragma once

#include <mach/mach.h>
#include <sys/types.h>

#include <cstdint>

#include "platform/host/wire/frame_stream.h"

struct HostPeer {
  pid_t pid = 0;
  uid_t uid = 0;
};

// The server's end of one conversation: plain state, kept and guarded by its receiver.
//
//   open --end of stream, or given up--> ended --frames dispatched, replies written--> dropped
//   open, ended --broken stream, error, over a limit--> dropped
struct HostConnection {
  uint32_t number = 0;       // its name inside the receiver
  uint64_t acceptOrder = 0;  // older connections have smaller ones
  int descriptor = -1;
  HostPeer peer;
  HostFrameReader in;
  HostOutQueue out;

  uint32_t interest = 0;      // epoll events asked for; 0: not in the epoll sets
  uint64_t lastActivity = 0;  // by the receiver's count
  int64_t partialSince = 0;   // monotonic ns since when a frame is incomplete; 0: none is
  size_t countedPartial = 0;  // what it adds to the totals
  size_t countedQueued = 0;
  int dispatching = 0;                      // callouts that run for its requests
  mach_port_t replyRight = MACH_PORT_NULL;  // of its latest unanswered request

  uint64_t sender = 0;    // the peer's thread, known from its first header
  uint32_t waitsFor = 0;  // an older connection of that thread, not yet drained
  bool isWaitedFor = false;
  bool identified = false;
  bool isReady = false;  // stands in the receiver's turn list
  HostConnection* nextReady = nullptr;
  bool paused = false;  // not read on: too much is partly received
  bool ended = false;   // nothing more comes

  // Nothing that is complete would be lost with it: no request, no reply, no asker who waits.
  bool IsExpendable() const {
    return !ended && dispatching == 0 && out.IsEmpty() && !isReady && !in.HasCompleteFrame() &&
           replyRight == MACH_PORT_NULL;
  }
};

// Connections with a complete frame, in turn. It links the connections themselves, so that a frame
// that has arrived is never lost for lack of memory. Guarded by the receiver.
class HostReadyConnections {
 public:
  bool IsEmpty() const { return first == nullptr; }
  void Append(HostConnection& connection) {
    (first == nullptr ? first : last->nextReady) = &connection;
    last = &connection;
    connection.nextReady = nullptr;
    connection.isReady = true;
  }
  HostConnection& TakeFirst() {
    HostConnection& taken = *first;
    first = taken.nextReady;
    taken.isReady = false;
    return taken;
  }
  void Clear() {
    while (!IsEmpty()) TakeFirst();
  }
  void Remove(HostConnection& connection) {
    if (!connection.isReady) return;
    HostConnection* before = nullptr;
    for (HostConnection* each = first; each != &connection; each = each->nextReady) before = each;
    (before == nullptr ? first : before->nextReady) = connection.nextReady;
    if (last == &connection) last = before;
    connection.isReady = false;
  }

 private:
  HostConnection* first = nullptr;
  HostConnection* last = nullptr;  // meaningless while there is no first
};
