#pragma once

#include <CoreServices/CoreServices.h>

// AtomicLockSet is one word of 32 bit locks, each taken and given back by whoever finds it free or
// held: nobody waits. Lock n is the bit 1 << n. Of a lock number the low six bits count; one from
// 32 to 63 is no lock, so it is never acquired and never held. Any thread; sequentially consistent.
class AtomicLockSet {
 public:
  explicit AtomicLockSet(UInt32 initial = 0) : word(initial) {}
  AtomicLockSet(const AtomicLockSet&) = delete;
  AtomicLockSet& operator=(const AtomicLockSet&) = delete;

  // The word from before.
  UInt32 SetBitMask(UInt32 mask);
  UInt32 ClrBitMask(UInt32 mask);

  // The bits of `mask` that this call changed: those not 0 are the caller's doing.
  UInt32 AcquireMask(UInt32 mask);
  UInt32 ReleaseMask(UInt32 mask);
  UInt32 AcquireLock(SInt32 lock) { return AcquireMask(MaskOf(lock)); }  // 8 for lock 3, not 1
  UInt32 ReleaseLock(SInt32 lock) { return ReleaseMask(MaskOf(lock)); }
  bool IsLockAcquired(SInt32 lock) const;

  // Stores `newValue` if the word at `address` is `oldValue`; tells whether it was.
  static bool CompareAndSwap32(UInt32 oldValue, UInt32 newValue, UInt32* address);

 private:
  static constexpr UInt32 MaskOf(SInt32 lock) {
    const auto bit = static_cast<UInt32>(lock) & 63;
    return bit < 32 ? UInt32{1} << bit : 0;
  }

  mutable UInt32 word;
};
