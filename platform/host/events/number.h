#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Numbers of every descriptor type, converted through one form wide enough for all of them, so
// that no conversion depends on the host's own floating point or locale. Pure functions, any
// thread.
//
// Rounding is to the nearest, halves to even. A number that does not fit its target after rounding
// is refused, never cut; infinities and NaNs fit floating-point types only.

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

// False when `size` is not the type's own.
bool HostReadNumber(DescType type, const void* bytes, size_t size, HostNumber* out);

// Writes the number as a `type`. False when it does not fit.
inline constexpr size_t kHostNumberSize = 16;
bool HostWriteNumber(const HostNumber& number, DescType type, uint8_t (&bytes)[kHostNumberSize],
                     size_t* size);

// Reads ASCII text: blanks, sign, digits with an optional point, an optional exponent, blanks. The
// number is as precise as a `type` needs. False when the text is no number or far out of range.
bool HostParseNumber(const char* text, size_t size, DescType type, HostNumber* out);

// Writes the shortest decimal text that reads back as the same value of this type; beyond 21 digits
// with an exponent. False when `size` is not the type's own or the value is not finite.
bool HostFormatNumber(DescType type, const void* bytes, size_t size, std::string* out);
