// What a receiver writes: replies, and the requests that this process sends itself.

#include <CoreServices/MacErrors.h>

#include <poll.h>
#include <cerrno>

#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/ports/receiver.h"

namespace {

constexpr size_t kQueuedPerConnection = size_t{8} << 20;  // behind the reply being written

}  // namespace

OSStatus HostReceiver::PostLocal(const HostFrameHeader& header, HostGather& frame,
                                 std::shared_ptr<HostLocalWaiter> waiter) {
  HostMessage message;
  message.header = header;
  message.body = HostCopyFrameBody(frame);
  if (!message.body.owner) return memFullErr;
  message.waiter = std::move(waiter);
  const bool isWaitedFor = message.waiter != nullptr;

  const std::lock_guard<HostMutex> lock(mutex);
  if (IsForeign() || IsDestroyed()) return connectionInvalid;
  if (isWaitedFor) {
    std::erase_if(repliesDue, [](const auto& each) { return each.expired(); });
    repliesDue.reserve(repliesDue.size() + waitersToCome + 1);
  }
  if (!turns.Post(std::move(message))) return errAETimeout;
  waitersToCome += isWaitedFor ? 1 : 0;
  interest.Wake();
  return 0;
}

OSStatus HostReceiver::Reply(uint32_t number, mach_port_t right, std::span<const iovec> pieces) {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (IsForeign()) return connectionInvalid;
    HostConnection* connection = Find(number);
    if (connection == nullptr) return connectionInvalid;
    if (connection->replyRight == right) connection->replyRight = MACH_PORT_NULL;
    size_t written = 0;
    if (connection->out.IsEmpty()) {
      const int error = connection->Write(pieces, &written);
      if (error == 0) return 0;
      if (error == EBADMSG) Drop(*connection);  // a lane that is broken
      if (error != EAGAIN) return connectionInvalid;
    }
    if (!connection->out.Append(pieces, written)) {
      Drop(*connection);
      return memFullErr;
    }
    intake.SetQueued(connection->account, connection->out.Size());
    if (connection->out.WaitingSize() > kQueuedPerConnection) {
      Drop(*connection);
      return 0;
    }
    UpdateInterest(*connection);
    DropIfFinished(*connection);
  }
  intake.Relieve();
  return 0;
}

mach_port_t HostReceiver::ExchangeReplyRight(uint32_t number, mach_port_t right) {
  const std::lock_guard<HostMutex> lock(mutex);
  HostConnection* connection = IsForeign() ? nullptr : Find(number);
  if (connection == nullptr) return right;
  return std::exchange(connection->replyRight, right);
}

// Writes what the socket takes of the replies that wait. Result: 0 or errno, as the queue's.
int HostReceiver::Flush(HostConnection& connection) {
  const int error = connection.Flush();
  intake.SetQueued(connection.account, connection.out.Size());
  return error;
}

// Waits for the peer to read its replies, at most until `end`.
void HostReceiver::FlushUntil(HostConnection& connection, int64_t end) {
  for (;;) {
    const int error = Flush(connection);
    const int wait = HostMillisecondsUntil(end, HostNow());
    if (error != EAGAIN || wait == 0) return;
    const bool isLane = connection.writesLane;
    pollfd entries[] = {
        {connection.descriptor, static_cast<short>(isLane ? POLLRDHUP : POLLOUT), 0},
        {isLane ? hall.Doorbell() : -1, POLLIN, 0}};
    if (poll(entries, 2, wait) < 0 && errno != EINTR) return;
    if (isLane && entries[0].revents != 0) return;
    if (entries[1].revents != 0) hall.ClearDoorbell();
  }
}

void HostReceiver::DiscardReplies(HostConnection& connection) {
  connection.out = HostOutQueue();
  intake.SetQueued(connection.account, 0);
}
