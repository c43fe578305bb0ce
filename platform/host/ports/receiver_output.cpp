// What a receiver writes: replies, and the requests that this process sends itself.

#include <CoreServices/MacErrors.h>
#include <unistd.h>

#include <poll.h>
#include <cerrno>

#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/ports/receiver.h"

namespace {

constexpr size_t kLocalLimit = size_t{64} << 20;          // bytes queued by this process itself
constexpr size_t kQueuedPerConnection = size_t{8} << 20;  // behind the reply being written
constexpr size_t kQueuedInAll = size_t{64} << 20;

constinit std::atomic<size_t> sQueuedInAll{0};

}  // namespace

OSStatus HostReceiver::PostLocal(const HostFrameHeader& header, HostGather& frame,
                                 std::shared_ptr<HostLocalWaiter> waiter) {
  HostFrameSlice body = HostCopyFrameBody(frame);
  if (!body.owner) return memFullErr;
  const size_t size = body.size;

  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return connectionInvalid;
  if (localBytes + size > kLocalLimit) return errAETimeout;
  const bool isWaitedFor = waiter != nullptr;
  if (isWaitedFor) {
    std::erase_if(unanswered, [](const auto& each) { return each.expired(); });
    unanswered.reserve(unanswered.size() + waitersToCome + 1);
  }
  local.push_back({header, std::move(body), std::move(waiter)});
  waitersToCome += isWaitedFor ? 1 : 0;
  localBytes += size;
  UpdateWaiting();
  for (const Watcher& watcher : watchers) {
    const uint64_t one = 1;
    // Full means woken already.
    (void)!write(watcher.wakeDescriptor, &one, sizeof one);
  }
  return 0;
}

OSStatus HostReceiver::Reply(uint32_t number, mach_port_t right, std::span<const iovec> pieces) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign()) return connectionInvalid;
  HostConnection* connection = Find(number);
  if (connection == nullptr) return connectionInvalid;
  if (connection->replyRight == right) connection->replyRight = MACH_PORT_NULL;
  size_t written = 0;
  if (connection->out.IsEmpty()) {
    const int error = HostWritePieces(connection->descriptor, pieces, &written);
    if (error == 0) return 0;
    if (error != EAGAIN) return connectionInvalid;
  }
  if (!connection->out.Append(pieces, written)) {
    Drop(*connection);
    return memFullErr;
  }
  CountQueued(*connection);
  UpdateInterest(*connection);
  EnforceQueueLimits(*connection);
  return 0;
}

mach_port_t HostReceiver::ExchangeReplyRight(uint32_t number, mach_port_t right) {
  const std::lock_guard<HostMutex> lock(mutex);
  HostConnection* connection = IsForeign() ? nullptr : Find(number);
  if (connection == nullptr) return right;
  return std::exchange(connection->replyRight, right);
}

void HostReceiver::EnforceQueueLimits(HostConnection& connection) {
  if (connection.out.WaitingSize() > kQueuedPerConnection) {
    Drop(connection);
    return;
  }
  if (sQueuedInAll.load(std::memory_order_relaxed) <= kQueuedInAll) return;
  HostConnection* fullest = nullptr;
  for (const auto& [number, other] : connections) {
    if (fullest == nullptr || other->countedQueued > fullest->countedQueued) fullest = other.get();
  }
  Drop(*fullest);
}

void HostReceiver::CountQueued(HostConnection& connection) {
  const size_t size = connection.out.Size();
  sQueuedInAll.fetch_add(size - connection.countedQueued, std::memory_order_relaxed);
  connection.countedQueued = size;
}

// Waits for the peer to read its replies, at most until `end`.
void HostReceiver::FlushUntil(HostConnection& connection, int64_t end) {
  for (;;) {
    const int error = connection.out.Flush(connection.descriptor);
    const int wait = HostMillisecondsUntil(end, HostNow());
    if (error != EAGAIN || wait == 0) return;
    pollfd entry = {connection.descriptor, POLLOUT, 0};
    if (poll(&entry, 1, wait) < 0 && errno != EINTR) return;
  }
}
