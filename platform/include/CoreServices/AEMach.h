#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>
#include <mach/mach.h>

// Apple Events over ports. Time-outs are in ticks (1/60 s) of the monotonic clock: 0 and kNoTimeOut
// wait for ever, kAEDefaultTimeout and other negatives one minute.

#pragma GCC visibility push(default)
extern "C" {

// Sends `event` to the port or process in its address attribute. A reply event from AEDecodeMessage
// goes to the sender of the request. Any thread. A send to a port of this process never waits. To
// another process it waits for buffer space and, with kAEWaitReply, for the reply, both within the
// time-out. Events from one thread to one port arrive in the order in which they were sent, also
// after a time-out.
//
// reply   null, or an uninitialised descriptor. Receives the reply, which the caller disposes of,
//         if kAEWaitReply succeeds; otherwise the null descriptor.
// Result  0; errAENotAppleEvent; errAEUnknownSendMode (the low two mode bits are 0); procNotFound
//         (no such process); errAEUnknownAddressType; connectionInvalid (the destination is gone or
//         ended during the wait); errAETimeout; memFullErr (the event is larger than a frame may
//         be, or no memory or file descriptors are left).
OSStatus AESendMessage(const AppleEvent* event, AppleEvent* reply, AESendMode mode,
                       SInt32 timeoutTicks);

// Decodes the message that a port's callout has received into an event and an empty reply, which is
// the null descriptor if the sender wants none. Both belong to the message: they are valid until
// the callout returns and are then disposed of; disposing of them earlier is harmless. A message
// can be decoded once.
//
// Result  0; errAENotAppleEvent (not the message of the present callout, or decoded already);
//         errAECorruptData; errAENewerVersion; memFullErr. After a failure both are null
//         descriptors.
OSStatus AEDecodeMessage(mach_msg_header_t* header, AppleEvent* event, AppleEvent* reply);

}  // extern "C"
#pragma GCC visibility pop
