#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/wire/frame_buffer.h"

// Bytes to events. Any thread, with a frame of its own.

// Makes an event of the flattened bytes `body` (no frame header). The event keeps a reference to
// the frame and points into it; scalars of the slice are swapped in place to native order, so a
// slice is decoded once. Checks everything before it trusts anything; no recursion. Attributes that
// do not travel (address, reply port, reply wanted, source) are for the caller to set.
//
// Returns 0 with `*out` for the caller to dispose of; errAECorruptData, errAENewerVersion or
//         memFullErr, with `*out` null.
OSStatus HostDecodeEvent(HostFrameSlice body, AppleEvent* out);
