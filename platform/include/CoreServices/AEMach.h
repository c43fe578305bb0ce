#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>
#include <mach/mach.h>

// Apple Events over ports. Time-outs are in ticks (1/60 s) of the monotonic clock: 0 and kNoTimeOut
// wait for ever, kAEDefaultTimeout and other negatives one minute.

#pragma GCC visibility push(default)
extern "C" {

// Sends `event` to the port or process that its address attribute names, or, for a reply event that
// AEDecodeMessage gave, back to the asker. Thread-safe. A send to a port of this process never
// waits; to another process it waits for buffer space and, with kAEWaitReply, for the reply, both
// within the time-out. What one thread sends to one port arrives in that order, time-outs included.
//
// reply   null, or an uninitialised descriptor: null afterwards unless kAEWaitReply succeeded, then
//         the caller's to dispose.
// Result  0; errAENotAppleEvent; errAEUnknownSendMode (low two mode bits 0); procNotFound (no such
//         process); errAEUnknownAddressType; connectionInvalid (the destination is gone, or went
//         while we waited); errAETimeout; memFullErr (larger than the frame limit, or no memory or
//         descriptors).
OSStatus AESendMessage(const AppleEvent* event, AppleEvent* reply, AESendMode mode,
                       SInt32 timeoutTicks);

// Makes the event of the message that a port's callout was given, and the event to answer with
// (null descriptor when the sender wants no reply). Both belong to the message: they are valid
// until the callout returns and are reclaimed then; disposing of them earlier is harmless. A
// message is decoded once.
//
// Result  0; errAENotAppleEvent (no message of the callout in progress, or decoded already);
//         errAECorruptData; errAENewerVersion; memFullErr. On failure both are null descriptors.
OSStatus AEDecodeMessage(mach_msg_header_t* header, AppleEvent* event, AppleEvent* reply);

}  // extern "C"
#pragma GCC visibility pop
