#pragma once

#include <CoreServices/CoreServices.h>

// Sets the size in bytes of a handle and returns what became of it: 0, memFullErr, memWZErr,
// nilHandleErr. On failure the handle is unchanged. Any thread; the handle is the caller's.
OSStatus NFSetHandleSize(Handle handle, SInt32 size);
