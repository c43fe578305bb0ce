#pragma once

#include <CoreServices/MacTypes.h>

#include <bit>
#include <cstddef>
#include <cstring>

// Hashes for tables whose keys may be chosen by somebody else: keyed with random bytes of this
// process, so that nobody outside can tell which keys collide, and not the same in two processes.
// Any thread.

UInt32 HostHashBytes(const void* bytes, size_t count);  // SipHash-1-3, folded to 32 bits
UInt32 HostHashWord(UInt64 word);                       // for words that are not hostile

// Without a key, and quick: where those who choose bytes that collide gain nothing.
inline UInt32 HostHashPlainly(const UInt8* bytes, size_t count) {
  constexpr UInt64 kFactor = 0x9E3779B97F4A7C15;
  UInt64 hash = count;
  UInt64 word = 0;
  if (count >= sizeof word) {
    const UInt8* const last = bytes + count - sizeof word;  // may overlap the word before
    for (; bytes < last; bytes += sizeof word) {
      std::memcpy(&word, bytes, sizeof word);
      hash = std::rotl((hash ^ word) * kFactor, 29);
    }
    std::memcpy(&word, last, sizeof word);
  } else {
    for (size_t i = 0; i < count; ++i) word = word << 8 | bytes[i];
  }
  return static_cast<UInt32>(((hash ^ word) * kFactor) >> 32);
}
