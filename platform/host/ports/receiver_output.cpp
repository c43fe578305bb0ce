#include "platform/host/ports/receiver_output.h"

#include <poll.h>
#include <cerrno>

#include "platform/host/base/clock.h"

namespace {

constexpr size_t kQueuedPerConnection = size_t{8} << 20;  // after the frame that is being written

}  // namespace

HostReceiverOutput::Outcome HostReceiverOutput::Write(HostConnection& connection,
                                                      std::span<const iovec> pieces) {
  size_t written = 0;
  if (connection.out.IsEmpty()) {
    const int error = connection.Write(pieces, &written);
    if (error == 0) return Outcome::kWritten;
    if (error == EBADMSG) return Outcome::kBroken;
    if (error != EAGAIN) return Outcome::kLost;
  }
  if (!connection.out.Append(pieces, written)) return Outcome::kNoMemory;
  intake.SetQueued(connection.account, connection.out.Size());
  const bool isTooMuch = connection.out.WaitingSize() > kQueuedPerConnection;
  return isTooMuch ? Outcome::kTooMuch : Outcome::kQueued;
}

int HostReceiverOutput::Flush(HostConnection& connection) {
  const int error = connection.Flush();
  intake.SetQueued(connection.account, connection.out.Size());
  return error;
}

void HostReceiverOutput::FlushUntil(HostConnection& connection, int64_t end,
                                    HostReceiverLanes& lanes) {
  for (;;) {
    const int error = Flush(connection);
    const int wait = HostMillisecondsUntil(end, HostNow());
    if (error != EAGAIN || wait == 0) return;
    const bool isLane = connection.writesLane;
    pollfd entries[] = {
        {connection.descriptor, static_cast<short>(isLane ? POLLRDHUP : POLLOUT), 0},
        {isLane ? lanes.Doorbell() : -1, POLLIN, 0}};
    if (poll(entries, 2, wait) < 0 && errno != EINTR) return;
    if (isLane && entries[0].revents != 0) return;
    if (entries[1].revents != 0) lanes.ClearDoorbell();
  }
}

void HostReceiverOutput::Discard(HostConnection& connection) {
  connection.out = HostOutQueue();
  intake.SetQueued(connection.account, 0);
}
