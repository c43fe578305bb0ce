#include "threads/atomic_lock_set.h"

#include <atomic>

UInt32 AtomicLockSet::SetBitMask(UInt32 mask) { return BitOrAtomic(mask, &word); }
UInt32 AtomicLockSet::ClrBitMask(UInt32 mask) { return BitAndAtomic(~mask, &word); }

UInt32 AtomicLockSet::AcquireMask(UInt32 mask) { return ~SetBitMask(mask) & mask; }
UInt32 AtomicLockSet::ReleaseMask(UInt32 mask) { return ClrBitMask(mask) & mask; }

bool AtomicLockSet::IsLockAcquired(SInt32 lock) const {
  return (std::atomic_ref<UInt32>(word).load() & MaskOf(lock)) != 0;
}

bool AtomicLockSet::CompareAndSwap32(UInt32 oldValue, UInt32 newValue, UInt32* address) {
  return CompareAndSwap(oldValue, newValue, address);
}
