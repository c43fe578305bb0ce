#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>

#include "platform/host/events/value.h"
#include "platform/host/wire/frame_buffer.h"
#include "platform/host/wire/gather.h"

// Events to bytes. One thread at a time for each event and each gather list.

// Appends the flattened form of `event` to a cleared gather list.
//
// Returns 0; paramErr, errAENotAEDesc, errAENotAppleEvent (not an event), memFullErr (over
//         kHostFrameLimit). The list's contents are then undefined.
OSStatus HostFlattenEvent(const AppleEvent* event, HostGather& out);

// The same for an event that has been found. Returns 0 or memFullErr.
OSStatus HostFlattenEvent(const HostAEEvent& event, HostGather& out);

// The ids by which a reply is matched to its request. One function reads them from a flattened
// request, which may be malformed; the other one writes a flattened reply with an error number and
// nothing else to `bytes`. Neither allocates: they serve when there is no memory for a real reply.
struct HostReplyIDs {
  AEReturnID returnID = 0;
  AETransactionID transactionID = 0;
};
HostReplyIDs HostPeekReplyIDs(const HostFrameSlice& request);
inline constexpr size_t kHostFailureReplySize = 40;
void HostFlattenFailureReply(const HostReplyIDs& ids, SInt32 error,
                             uint8_t (&bytes)[kHostFailureReplySize]);
