#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>

#include "platform/host/ports/connection.h"
#include "platform/host/ports/local_waiter.h"
#include "platform/host/wire/frame.h"

// The connections of a receiver by number.
using HostConnectionMap = std::unordered_map<uint32_t, std::unique_ptr<HostConnection>>;

// One request taken off a receiver.
struct HostMessage {
  HostFrameHeader header;
  HostFrameSlice body;
  uint32_t connection = 0;                  // 0: this process sent it
  std::shared_ptr<HostLocalWaiter> waiter;  // of a thread of this process, or null
};

// Connections with a complete frame, in turn. It links the connections themselves, so that a frame
// that has arrived is never lost for lack of memory.
class HostConnectionLine {
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

// HostTurns decides whose request is served next.
//
// Connections with a complete frame stand in a line. The first gives one frame and, if it has
// another, goes to the end: so nobody waits longer for having a neighbour who sends much. The queue
// of what this process sends itself takes part in the line as one connection would: after each
// connection it has a turn. It has room for 64 MiB.
//
// A thread of a client that closed a connection and made another is served in the order in which it
// sent: the younger connection waits, out of the line, until the older one is gone.
//
//   idle --complete frame--> in line --its turn--> idle, or in line again
//   idle --complete frame, an older one of its thread is there--> held --the older goes--> in line
//
// Guarded by its receiver's lock, all but HasMessages.
class HostTurns {
 public:
  bool HasMessages() const { return messagesWait.load(std::memory_order_acquire); }

  // Finds out whose turn has to come before that of `connection`, once its first header is there.
  void Identify(HostConnection& connection, const HostConnectionMap& connections);
  // Lets `connection` stand in line if it has a complete frame, does not yet and is not held.
  void Offer(HostConnection& connection);
  // Takes a connection that goes out of the line.
  void Remove(HostConnection& connection);
  // The connection that `follower` was held for has gone.
  void Unhold(HostConnection& follower);

  // Queues what this process sends itself. False when there is no room.
  bool Post(HostMessage message);

  // Whose turn it is: a connection, which leaves the line, or, as null, this process, whose message
  // is taken. False when nobody waits.
  bool Next(HostConnection** connection, HostMessage* message);

  // Nobody is served any more; threads of this process that wait for a reply are told.
  void End();

 private:
  void Update();

  std::atomic<bool> messagesWait{false};
  HostConnectionLine line;
  std::deque<HostMessage> local;
  size_t localBytes = 0;
  bool isLocalTurn = false;
};
