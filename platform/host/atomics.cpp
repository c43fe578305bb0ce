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
