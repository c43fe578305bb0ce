#pragma once

#include <CoreServices/MacTypes.h>

// Atomic changes of a 32-bit word, which must be aligned to 4 bytes, or of a bit of a byte. Any
// thread; sequentially consistent. The functions return the former value unless stated otherwise.

#pragma GCC visibility push(default)
extern "C" {

UInt32 BitOrAtomic(UInt32 mask, UInt32* address);
UInt32 BitAndAtomic(UInt32 mask, UInt32* address);
UInt32 BitXorAtomic(UInt32 mask, UInt32* address);

SInt32 IncrementAtomic(SInt32* address);
SInt32 DecrementAtomic(SInt32* address);
SInt32 AddAtomic(SInt32 amount, SInt32* address);  // wraps round

// Stores `newValue` if the word is `oldValue`, and returns whether it was. For 32-bit words only: a
// pointer is wider on some CPUs.
Boolean CompareAndSwap(UInt32 oldValue, UInt32 newValue, UInt32* address);

// Bit 0 is the most significant; of the bit number the low three bits count.
Boolean TestAndSet(UInt32 bit, UInt8* address);
Boolean TestAndClear(UInt32 bit, UInt8* address);

}  // extern "C"
#pragma GCC visibility pop
