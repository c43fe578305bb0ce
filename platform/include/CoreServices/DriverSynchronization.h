#pragma once

#include <CoreServices/MacTypes.h>

// Atomic changes of a 32-bit word, which must lie on a 4-byte boundary, or of a bit of a byte. Any
// thread; sequentially consistent. Where nothing else is said the result is the value from before.

#pragma GCC visibility push(default)
extern "C" {

UInt32 BitOrAtomic(UInt32 mask, UInt32* address);
UInt32 BitAndAtomic(UInt32 mask, UInt32* address);
UInt32 BitXorAtomic(UInt32 mask, UInt32* address);

SInt32 IncrementAtomic(SInt32* address);
SInt32 DecrementAtomic(SInt32* address);
SInt32 AddAtomic(SInt32 amount, SInt32* address);  // wraps round

// True when the word was `oldValue` and is `newValue` now. For 32-bit words only: a slot that holds
// a pointer is wider on some hosts.
Boolean CompareAndSwap(UInt32 oldValue, UInt32 newValue, UInt32* address);

// Bit 0 is the most significant; of the bit number the low three bits count.
Boolean TestAndSet(UInt32 bit, UInt8* address);
Boolean TestAndClear(UInt32 bit, UInt8* address);

}  // extern "C"
#pragma GCC visibility pop
