#pragma once

#include <CoreServices/MacTypes.h>

// Atomic changes of a 32-bit word, which must lie on a 4-byte boundary. Each gives the value from
// before the change. Any thread; sequentially consistent.

extern "C" {

UInt32 BitOrAtomic(UInt32 mask, UInt32* address);
UInt32 BitAndAtomic(UInt32 mask, UInt32* address);
UInt32 BitXorAtomic(UInt32 mask, UInt32* address);

}  // extern "C"
