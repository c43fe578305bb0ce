#include "platform/host/base/hash.h"

#include <sys/auxv.h>

#include <cstring>

namespace {

struct Key {
  UInt64 first = 0x9E3779B97F4A7C15;
  UInt64 second = 0xD1B54A32D192ED03;
};

// The kernel gives every program 16 random bytes when it starts, so this needs no system call.
Key ReadKey() {
  Key key;
  const auto* random = reinterpret_cast<const void*>(getauxval(AT_RANDOM));
  if (random != nullptr) std::memcpy(&key, random, sizeof key);
  return key;
}

const Key& ProcessKey() {
  static const Key key = ReadKey();
  return key;
}

// Combines both halves of the product: each bit of the result depends on all bits of both factors.
// The key is part of each factor, so other processes know neither.
UInt64 Fold(UInt64 a, UInt64 b) {
#ifdef __SIZEOF_INT128__
  __extension__ using UInt128 = unsigned __int128;
  const UInt128 product = UInt128{a} * b;
  return static_cast<UInt64>(product) ^ static_cast<UInt64>(product >> 64);
#else
  const UInt64 aLow = static_cast<UInt32>(a), aHigh = a >> 32;
  const UInt64 bLow = static_cast<UInt32>(b), bHigh = b >> 32;
  const UInt64 middle = aHigh * bLow + (aLow * bLow >> 32);
  const UInt64 other = aLow * bHigh + static_cast<UInt32>(middle);
  const UInt64 low = other << 32 | static_cast<UInt32>(aLow * bLow);
  return low ^ (aHigh * bHigh + (middle >> 32) + (other >> 32));
#endif
}

// Uses the native byte order, because the value never leaves the process.
template <class Word>
UInt64 Load(const UInt8* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

}  // namespace

// Takes sixteen bytes at a time. The last sixteen are read from the end, some of them a second
// time.
UInt32 HostHashBytes(const void* given, size_t count) {
  const Key& key = ProcessKey();
  const auto* bytes = static_cast<const UInt8*>(given);
  UInt64 hash = key.first;
  UInt64 a = 0, b = 0;
  if (count >= 8) {
    for (size_t left = count; left > 16; left -= 16, bytes += 16) {
      hash = Fold(Load<UInt64>(bytes) ^ key.second, Load<UInt64>(bytes + 8) ^ hash);
    }
    const UInt8* const end = static_cast<const UInt8*>(given) + count;
    a = Load<UInt64>(count >= 16 ? end - 16 : bytes);
    b = Load<UInt64>(end - 8);
  } else if (count >= 4) {
    a = Load<UInt32>(bytes);
    b = Load<UInt32>(bytes + count - 4);
  } else if (count > 0) {
    a = UInt64{bytes[0]} << 16 | UInt64{bytes[count / 2]} << 8 | bytes[count - 1];
  }
  hash = Fold(Fold(a ^ key.second, b ^ hash) ^ key.first, count ^ key.second);
  return static_cast<UInt32>(hash ^ (hash >> 32));
}

UInt32 HostHashWord(UInt64 word) {
  word ^= ProcessKey().first;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
  return static_cast<UInt32>(word ^ (word >> 31));
}
