#pragma once

#include <CoreServices/CoreServices.h>

// AtomicLockSet is a word of 32 try-locks. Acquiring and releasing never wait; the result reports
// whether this call changed the bit. Lock n is the bit 1 << n. Only the low six bits of a lock
// number count. The numbers 32 to 63 stand for no bit: such a lock is never acquired and never
// held. Any thread; all operations are sequentially consistent.
class AtomicLockSet {
 public:
  explicit AtomicLockSet(UInt32 initial = 0) : word(initial) {}
  AtomicLockSet(const AtomicLockSet&) = delete;
  AtomicLockSet& operator=(const AtomicLockSet&) = delete;

  // Sets or clears the bits of `mask`. Returns the word from before.
  UInt32 SetBitMask(UInt32 mask);
  UInt32 ClrBitMask(UInt32 mask);

  // Return the bits of `mask` that this call changed. For lock 3 that is 8, or 0 if another caller
  // came first.
  UInt32 AcquireMask(UInt32 mask);
  UInt32 ReleaseMask(UInt32 mask);
  UInt32 AcquireLock(SInt32 lock) { return AcquireMask(MaskOf(lock)); }
  UInt32 ReleaseLock(SInt32 lock) { return ReleaseMask(MaskOf(lock)); }
  bool IsLockAcquired(SInt32 lock) const;

  // Stores `newValue` if the word at `address` is `oldValue`. Returns whether it did.
  static bool CompareAndSwap32(UInt32 oldValue, UInt32 newValue, UInt32* address);

 private:
  static constexpr UInt32 MaskOf(SInt32 lock) {
    const auto bit = static_cast<UInt32>(lock) & 63;
    return bit < 32 ? UInt32{1} << bit : 0;
  }

  mutable UInt32 word;
};
