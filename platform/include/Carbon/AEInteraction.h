#pragma once

#include <CoreServices/AEMach.h>

using AEIdleUPP = Boolean (*)(void* event, SInt32* sleepTime, void** mouseRgn);
using AEFilterUPP = Boolean (*)(void* event, SInt32 returnID, AETransactionID,
                                const AEDesc* sender);

#pragma GCC visibility push(default)
extern "C" {

// AESendMessage under the classic signature. Priority, idle and filter procedures have no effect.
OSErr AESend(const AppleEvent* event, AppleEvent* reply, AESendMode mode, AESendPriority priority,
             SInt32 timeoutTicks, AEIdleUPP idle, AEFilterUPP filter);

}  // extern "C"
#pragma GCC visibility pop
