#pragma once

#include <CoreServices/CoreServices.h>

// Sets the size of a handle in bytes. Returns 0, memFullErr, memWZErr or nilHandleErr. A failure
// leaves the handle unchanged. Any thread; only one at a time may use the handle.
OSStatus NFSetHandleSize(Handle handle, SInt32 size);
