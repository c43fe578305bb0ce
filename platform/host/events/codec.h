#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>

#include "platform/host/wire/frame_buffer.h"
#include "platform/host/wire/gather.h"

// The flattened form of an Apple Event: what stands behind the frame header on the wire. All
// numbers are big-endian; docs/protocol.md has the byte table.

// Deepest nesting of lists and records, the event's own parameters counting as level 1.
inline constexpr int kHostNestingLimit = 64;

// Appends the flattened form of `event` to a cleared gather list.
//
// Result  0; paramErr, errAENotAEDesc, errAENotAppleEvent (no event), memFullErr (over
//         kHostFrameLimit). The list's contents are then undefined.
OSStatus HostFlattenEvent(const AppleEvent* event, HostGather& out);

// What identifies a request to whoever answers it, read from a flattened request that need not be
// sound, and an answer with an error number and nothing else, flattened into `bytes`. Both without
// memory: they are for when there is none for a real answer.
struct HostAnswerIDs {
  AEReturnID returnID = 0;
  AETransactionID transactionID = 0;
};
HostAnswerIDs HostPeekAnswerIDs(const HostFrameSlice& request);
inline constexpr size_t kHostFailureAnswerSize = 40;
void HostFlattenFailureAnswer(const HostAnswerIDs& ids, SInt32 error,
                              uint8_t (&bytes)[kHostFailureAnswerSize]);

// Makes an event of the flattened bytes `body` (no frame header). The event keeps a reference to
// the frame and points into it; scalars of the slice are swapped in place to native order, so a
// slice is decoded once. Checks everything before it trusts anything; no recursion. Attributes that
// do not travel (address, reply port, reply wanted, source) are for the caller to set.
//
// Result  0 with `*out` for the caller to dispose; errAECorruptData, errAENewerVersion or
//         memFullErr, with `*out` null.
OSStatus HostDecodeEvent(HostFrameSlice body, AppleEvent* out);
