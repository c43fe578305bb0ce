#pragma once

#include <CoreFoundation/CFBase.h>

// Blocks of bytes, immutable; any thread.

using CFDataRef = const struct __CFData*;

#pragma GCC visibility push(default)
extern "C" {

CFTypeID CFDataGetTypeID(void);

// Copies the bytes. Returns null for a negative length, for null bytes with a positive one, and
// without memory.
CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8* bytes, CFIndex length);

// Uses the caller's bytes, which must not change any more. `deallocator` frees them when the object
// is destroyed: kCFAllocatorNull leaves them alone; any other, also null, frees them as
// CFAllocatorDeallocate does. After a failure (as above) the bytes still belong to the caller.
CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8* bytes, CFIndex length,
                                      CFAllocatorRef deallocator);

CFIndex CFDataGetLength(CFDataRef data);
const UInt8* CFDataGetBytePtr(CFDataRef data);  // borrowed; null for null only
// Stores nothing unless the whole range is in the data.
void CFDataGetBytes(CFDataRef data, CFRange range, UInt8* buffer);

}  // extern "C"
#pragma GCC visibility pop
