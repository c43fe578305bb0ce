#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

// Reads and writes big-endian numbers at addresses of any alignment, on every CPU architecture.
// Pure functions: any thread.

inline uint16_t HostSwap16(uint16_t value) { return __builtin_bswap16(value); }
inline uint32_t HostSwap32(uint32_t value) { return __builtin_bswap32(value); }
inline uint64_t HostSwap64(uint64_t value) { return __builtin_bswap64(value); }

inline constexpr bool kHostIsBigEndian = std::endian::native == std::endian::big;

inline uint16_t HostLoadBig16(const void* bytes) {
  uint16_t value;
  memcpy(&value, bytes, sizeof value);
  return kHostIsBigEndian ? value : HostSwap16(value);
}

inline uint32_t HostLoadBig32(const void* bytes) {
  uint32_t value;
  memcpy(&value, bytes, sizeof value);
  return kHostIsBigEndian ? value : HostSwap32(value);
}

inline uint64_t HostLoadBig64(const void* bytes) {
  uint64_t value;
  memcpy(&value, bytes, sizeof value);
  return kHostIsBigEndian ? value : HostSwap64(value);
}

inline void HostStoreBig16(void* bytes, uint16_t value) {
  if (!kHostIsBigEndian) value = HostSwap16(value);
  memcpy(bytes, &value, sizeof value);
}

inline void HostStoreBig32(void* bytes, uint32_t value) {
  if (!kHostIsBigEndian) value = HostSwap32(value);
  memcpy(bytes, &value, sizeof value);
}

inline void HostStoreBig64(void* bytes, uint64_t value) {
  if (!kHostIsBigEndian) value = HostSwap64(value);
  memcpy(bytes, &value, sizeof value);
}
