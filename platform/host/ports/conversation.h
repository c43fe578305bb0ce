#pragma once

#include <CoreServices/MacTypes.h>

#include <cstdint>

#include "platform/host/events/codec.h"
#include "platform/host/wire/frame.h"

// The client's end of the transport. Any thread: each keeps connections of its own, one to each
// port that it sends to, so what it sends to a port arrives in order, and a late reply reaches
// nobody else. A time-out never breaks a connection: a frame that was begun is finished before the
// next.

// Sends `frame` (its header room is filled in here, from `header`) to the port and, when
// `replyBody` is not null, waits for the reply to this very request.
//
// timeout   nanoseconds from now; kHostNever waits for ever.
// Result    0; connectionInvalid (the port is dead, or died while we waited); errAETimeout (no
//           room, or no reply, in time); errAECorruptData (the peer speaks something else);
//           memFullErr (descriptors, memory).
OSStatus HostConverse(uint64_t portID, HostFrameHeader header, HostGather& frame, int64_t timeout,
                      HostFrameSlice* replyBody);

// A random number for the next request: no peer can answer a request before it has seen it, nor one
// that it never saw.
uint64_t HostNextRequestNumber();

// The calling thread's random number, so that a server can tell a thread that reconnected.
uint64_t HostThreadNumber();
