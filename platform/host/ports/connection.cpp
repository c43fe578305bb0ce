#include "platform/host/ports/connection.h"

#include <sys/socket.h>
#include <cassert>

ssize_t HostConnection::Receive() {
  if (!readsLane) {
    const ssize_t size = hungUp ? 0 : in.Receive(descriptor, MSG_DONTWAIT);
    if (lane == nullptr || size > 0) return size;
    if (size == 0 || errno == ECONNRESET) {
      hungUp = true;
    } else if (errno != EAGAIN) {
      return size;
    } else if (!lane->HasBytes()) {
      return errno = EAGAIN, -1;
    }
    // The client has written nothing to the socket since it began to use the lane, and has finished
    // there every frame that it had begun there.
    if (in.PartialBytes() > 0) return hungUp ? 0 : (errno = EBADMSG, -1);
    readsLane = true;
  }
  const ssize_t size = lane->Receive(in);
  return size < 0 && errno == EAGAIN && hungUp ? 0 : size;
}

int HostConnection::Write(std::span<const iovec> pieces, size_t* written) {
  assert(out.IsEmpty());
  writesLane = readsLane;
  return writesLane ? lane->Write(pieces, written) : HostWritePieces(descriptor, pieces, written);
}
