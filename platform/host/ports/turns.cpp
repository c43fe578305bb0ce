#include "platform/host/ports/turns.h"

#include <cassert>
#include <utility>

namespace {

constexpr size_t kLocalLimit = size_t{64} << 20;  // bytes

}  // namespace

void HostTurns::Update() {
  messagesWait.store(!line.IsEmpty() || !local.empty(), std::memory_order_release);
}

void HostTurns::Identify(HostConnection& connection, const HostConnectionMap& connections) {
  HostFrameHeader header;
  if (connection.identified || !connection.in.Peek(&header)) return;
  connection.identified = true;
  connection.sender = header.sender;
  if (connection.sender == 0) return;
  HostConnection* before = nullptr;
  for (const auto& [number, other] : connections) {
    if (other->sender != connection.sender || other->peer.pid != connection.peer.pid ||
        other->acceptOrder >= connection.acceptOrder) {
      continue;
    }
    if (before == nullptr || other->acceptOrder > before->acceptOrder) before = other.get();
  }
  if (before == nullptr) return;
  assert(before != &connection && !connection.isReady);
  connection.waitsFor = before->number;
  before->isWaitedFor = true;
}

void HostTurns::Offer(HostConnection& connection) {
  if (connection.isReady || connection.waitsFor != 0 || !connection.HasFrame()) return;
  line.Append(connection);
  Update();
}

void HostTurns::Remove(HostConnection& connection) {
  line.Remove(connection);
  Update();
}

void HostTurns::Unhold(HostConnection& follower) {
  assert(follower.waitsFor != 0 && !follower.isReady);
  follower.waitsFor = 0;
  Offer(follower);
}

bool HostTurns::Post(HostMessage message) {
  if (localBytes + message.body.size > kLocalLimit) return false;
  const size_t size = message.body.size;
  local.push_back(std::move(message));
  localBytes += size;
  Update();
  return true;
}

bool HostTurns::Next(HostConnection** connection, HostMessage* message) {
  if (line.IsEmpty() && local.empty()) return false;
  if (!local.empty() && (isLocalTurn || line.IsEmpty())) {
    *message = std::move(local.front());
    local.pop_front();
    assert(localBytes >= message->body.size && message->connection == 0);
    localBytes -= message->body.size;
    *connection = nullptr;
    isLocalTurn = false;
  } else {
    *connection = &line.TakeFirst();
    isLocalTurn = true;
  }
  Update();
  return true;
}

void HostTurns::End() {
  for (const HostMessage& message : local) {
    if (message.waiter != nullptr) message.waiter->Abandon();
  }
  local.clear();
  localBytes = 0;
  while (!line.IsEmpty()) line.TakeFirst();
  Update();
}
