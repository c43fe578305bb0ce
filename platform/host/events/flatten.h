#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>

#include "platform/host/events/value.h"
#include "platform/host/wire/frame_buffer.h"
#include "platform/host/wire/gather.h"

// Events to bytes. One thread at a time for each event and each gather list.

// Appends the flattened form of `event` to a cleared gather list.
//
// Result  0; paramErr, errAENotAEDesc, errAENotAppleEvent (no event), memFullErr (over
//         kHostFrameLimit). The list's contents are then undefined.
OSStatus HostFlattenEvent(const AppleEvent* event, HostGather& out);

// The same for an event that has been found. Returns 0 or memFullErr.
OSStatus HostFlattenEvent(const HostAEEvent& event, HostGather& out);

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
