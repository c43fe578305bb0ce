#pragma once

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <cstdlib>

// Helpers for reading and printing text, shared by the sources of this folder. Pure functions, any
// thread.

// Reads a signed decimal number as the C scan formats do, with spaces and a sign before it, and
// moves `at` to the character after it. Saturates at the limits of 32 bits. Returns false and
// changes nothing if there is no number.
inline bool ScanSInt32(const char*& at, SInt32& number) {
  char* end = nullptr;
  const long long value = std::strtoll(at, &end, 10);
  if (end == at) return false;
  at = end;
  number = static_cast<SInt32>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
  return true;
}

// A byte over 127 is not printable, whether or not `char` is signed.
inline bool IsPrintableASCII(UInt8 byte) { return byte >= 32 && byte < 127; }
