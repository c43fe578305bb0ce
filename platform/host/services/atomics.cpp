#include <CoreServices/DriverSynchronization.h>

#include <atomic>

UInt32 BitOrAtomic(UInt32 mask, UInt32* address) {
  return std::atomic_ref<UInt32>(*address).fetch_or(mask);
}

UInt32 BitAndAtomic(UInt32 mask, UInt32* address) {
  return std::atomic_ref<UInt32>(*address).fetch_and(mask);
}

UInt32 BitXorAtomic(UInt32 mask, UInt32* address) {
  return std::atomic_ref<UInt32>(*address).fetch_xor(mask);
}

SInt32 IncrementAtomic(SInt32* address) { return AddAtomic(1, address); }
SInt32 DecrementAtomic(SInt32* address) { return AddAtomic(-1, address); }

SInt32 AddAtomic(SInt32 amount, SInt32* address) {
  return std::atomic_ref<SInt32>(*address).fetch_add(amount);
}

Boolean CompareAndSwap(UInt32 oldValue, UInt32 newValue, UInt32* address) {
  return std::atomic_ref<UInt32>(*address).compare_exchange_strong(oldValue, newValue);
}

Boolean TestAndSet(UInt32 bit, UInt8* address) {
  const auto mask = static_cast<UInt8>(0x80 >> (bit & 7));
  return (std::atomic_ref<UInt8>(*address).fetch_or(mask) & mask) != 0;
}

Boolean TestAndClear(UInt32 bit, UInt8* address) {
  const auto mask = static_cast<UInt8>(0x80 >> (bit & 7));
  return (std::atomic_ref<UInt8>(*address).fetch_and(static_cast<UInt8>(~mask)) & mask) != 0;
}
