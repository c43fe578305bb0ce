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

// Connections with a complete frame, in turn. It links the connections themselves, so that lack of
// memory never loses a frame that has arrived.
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
// Connections with a complete frame are in a line. The first gives one frame and, if it has
// another, goes to the end of the line, so a client that sends much delays no other. The requests
// that this process sends itself are in a queue of 64 MiB, which has a turn after each connection.
//
// If a client thread has closed a connection and made another, its requests are served in the order
// in which it sent them: the younger connection waits, out of the line, until the older one has
// gone.
//
//   idle --complete frame--> in line --its turn--> idle, or in line again
//   idle --complete frame, an older one of its thread is there--> held --the older goes--> in line
//
// Guarded by its receiver's lock, except HasMessages.
class HostTurns {
 public:
  bool HasMessages() const { return messagesWait.load(std::memory_order_acquire); }

  // Once the first header of `connection` has come: holds it if an older connection of the same
  // thread exists.
  void Identify(HostConnection& connection, const HostConnectionMap& connections);
  // Puts `connection` into the line if it has a complete frame, is not in the line and is not held.
  void Offer(HostConnection& connection);
  // Takes a connection that goes out of the line.
  void Remove(HostConnection& connection);
  // The connection that `follower` was held for has gone.
  void Unhold(HostConnection& follower);

  // Queues a request of this process. Returns false if there is no room.
  bool Post(HostMessage message);

  // Takes what is next: a connection, out of the line, or a message of this process; then
  // `*connection` is null. Returns false if nothing waits.
  bool Next(HostConnection** connection, HostMessage* message);

  // Drops everything. Threads of this process that wait for a reply get connectionInvalid.
  void End();

 private:
  void Update();

  std::atomic<bool> messagesWait{false};
  HostConnectionLine line;
  std::deque<HostMessage> local;
  size_t localBytes = 0;
  bool isLocalTurn = false;
};
