#pragma once

#include <CoreFoundation/CFBase.h>

// Blocks of bytes, immutable; any thread.

using CFDataRef = const struct __CFData*;

#pragma GCC visibility push(default)
extern "C" {

CFTypeID CFDataGetTypeID(void);

// Copies the bytes. Null for a negative length, for null bytes with a positive one, and when there
// is no memory.
CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8* bytes, CFIndex length);

// Keeps the pointer; the bytes must not change any more. `deallocator` frees them when the object
// goes: kCFAllocatorNull never does, the others (null too) do what CFAllocatorDeallocate does. On
// failure (as above) the bytes stay the caller's.
CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8* bytes, CFIndex length,
                                      CFAllocatorRef deallocator);

CFIndex CFDataGetLength(CFDataRef data);
const UInt8* CFDataGetBytePtr(CFDataRef data);  // borrowed; null for null only
// Stores nothing unless the whole range lies inside.
void CFDataGetBytes(CFDataRef data, CFRange range, UInt8* buffer);

}  // extern "C"
#pragma GCC visibility pop
