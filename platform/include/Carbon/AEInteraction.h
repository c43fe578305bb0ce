#pragma once

#include <CoreServices/AEMach.h>

using AEIdleUPP = Boolean (*)(void* event, SInt32* sleepTime, void** mouseRgn);
using AEFilterUPP = Boolean (*)(void* event, SInt32 returnID, AETransactionID,
                                const AEDesc* sender);

#pragma GCC visibility push(default)
extern "C" {

// Does the same as AESendMessage. Priority, idle procedure and filter procedure have no effect. Any
// thread.
OSErr AESend(const AppleEvent* event, AppleEvent* reply, AESendMode mode, AESendPriority priority,
             SInt32 timeoutTicks, AEIdleUPP idle, AEFilterUPP filter);

}  // extern "C"
#pragma GCC visibility pop
