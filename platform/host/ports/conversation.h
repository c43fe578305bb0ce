#pragma once

#include <CoreServices/MacTypes.h>

#include <cstdint>

#include "platform/host/events/codec.h"
#include "platform/host/wire/frame.h"

// The client's end of the transport. Any thread: each has connections of its own, one to each port
// that it sends to. So its frames arrive at a port in order, and a late reply reaches no other
// thread. A time-out never breaks a connection: a frame that was begun is finished before the next.

// Fills in the header of `frame` from `header` and sends it to the port. If `replyBody` is not
// null, waits for the reply to this very request.
//
// timeout   nanoseconds from now; kHostNever waits for ever.
// Returns   0; connectionInvalid (the port is dead, or died meanwhile); errAETimeout (no
//           room, or no reply, in time); errAECorruptData (the peer sent no frames);
//           memFullErr (file descriptors or memory are short).
OSStatus HostConverse(uint64_t portID, HostFrameHeader header, HostGather& frame, int64_t timeout,
                      HostFrameSlice* replyBody);

// Returns a random number for the next request, so that a peer cannot reply to a request that it
// has not seen.
uint64_t HostNextRequestNumber();

// Returns the calling thread's random number, by which a server recognises a thread that has
// connected again.
uint64_t HostThreadNumber();
