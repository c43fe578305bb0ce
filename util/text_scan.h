#pragma once

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <cstdlib>

// Small steps of reading and printing text that the sources of this folder share.

// Reads a signed decimal number as the C scan formats do, blanks and a sign in front included, and
// moves `at` behind it. Saturates at the limits of 32 bits. False, with nothing changed, when there
// is no number.
inline bool ScanSInt32(const char*& at, SInt32& number) {
  char* end = nullptr;
  const long long value = std::strtoll(at, &end, 10);
  if (end == at) return false;
  at = end;
  number = static_cast<SInt32>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
  return true;
}

// Bytes over 127 do not count as printable, whether or not `char` has a sign here.
inline bool IsPrintableASCII(UInt8 byte) { return byte >= 32 && byte < 127; }
