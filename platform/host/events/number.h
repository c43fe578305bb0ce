#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Converts numbers of every descriptor type. All go through one form that is wide enough for each
// of them, so no conversion depends on the CPU's floating point or the locale. Pure functions, any
// thread.
//
// Rounding is to the nearest, halves to even. A number that does not fit its target after rounding
// is refused, not truncated. Infinities and NaNs fit floating-point types only.

struct HostNumber {
  enum class Kind { kFinite, kInfinite, kNaN };

  Kind kind = Kind::kFinite;
  bool negative = false;
  // The magnitude is (high * 2^64 + low) * 2^exponent; high has its top bit set unless it is zero.
  uint64_t high = 0;
  uint64_t low = 0;
  int exponent = 0;
};

bool HostIsNumberType(DescType type);

// Returns false if `size` is not the size of the type.
bool HostReadNumber(DescType type, const void* bytes, size_t size, HostNumber* out);

// Writes the number as a `type`. Returns false if it does not fit.
inline constexpr size_t kHostNumberSize = 16;
bool HostWriteNumber(const HostNumber& number, DescType type, uint8_t (&bytes)[kHostNumberSize],
                     size_t* size);

// Reads ASCII text: spaces, a sign, digits with an optional point, an optional exponent, spaces.
// The number is as precise as a `type` needs. Returns false if the text is not a number or far out
// of range.
bool HostParseNumber(const char* text, size_t size, DescType type, HostNumber* out);

// Writes the shortest decimal text that reads back as the same value of this type; beyond 21 digits
// with an exponent. Returns false if `size` is not the type's own or the value is not finite.
bool HostFormatNumber(DescType type, const void* bytes, size_t size, std::string* out);
