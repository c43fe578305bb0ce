#include "platform/host/hash.h"

#include <sys/auxv.h>

#include <bit>
#include <cstring>

#include "platform/host/byte_order.h"

namespace {

struct Key {
  UInt64 first = 0x9E3779B97F4A7C15;
  UInt64 second = 0xD1B54A32D192ED03;
};

// The kernel gives every program 16 random bytes when it starts: no call, no descriptor.
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

struct State {
  UInt64 v0, v1, v2, v3;

  explicit State(const Key& key)
      : v0(key.first ^ 0x736F6D6570736575),
        v1(key.second ^ 0x646F72616E646F6D),
        v2(key.first ^ 0x6C7967656E657261),
        v3(key.second ^ 0x7465646279746573) {}

  void Round() {
    v0 += v1, v1 = std::rotl(v1, 13) ^ v0, v0 = std::rotl(v0, 32);
    v2 += v3, v3 = std::rotl(v3, 16) ^ v2;
    v0 += v3, v3 = std::rotl(v3, 21) ^ v0;
    v2 += v1, v1 = std::rotl(v1, 17) ^ v2, v2 = std::rotl(v2, 32);
  }

  void Take(UInt64 word) {
    v3 ^= word;
    Round();
    v0 ^= word;
  }
};

}  // namespace

UInt32 HostHashBytes(const void* bytes, size_t count) {
  State state(ProcessKey());
  const auto* next = static_cast<const UInt8*>(bytes);
  UInt64 word = 0;
  for (size_t left = count / sizeof word; left > 0; --left, next += sizeof word) {
    std::memcpy(&word, next, sizeof word);  // in native order: the value never leaves the process
    state.Take(word);
  }
  // The bytes left over, at most seven, below the count in the top byte.
  word = UInt64{count} << 56;
  if (const size_t rest = count % sizeof word; rest > 0) {
    std::memcpy(reinterpret_cast<UInt8*>(&word) + (kHostIsBigEndian ? 1 : 0), next, rest);
  }
  state.Take(word);
  state.v2 ^= 0xFF;
  for (int i = 0; i < 3; ++i) state.Round();
  const UInt64 hash = state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
  return static_cast<UInt32>(hash ^ (hash >> 32));
}

UInt32 HostHashWord(UInt64 word) {
  word ^= ProcessKey().first;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
  return static_cast<UInt32>(word ^ (word >> 31));
}
