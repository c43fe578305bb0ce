#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstddef>
#include <string_view>

// Converts the leaves of property lists to text and back: integers, reals, dates, base64. Pure
// functions, any thread. The results do not depend on locale, time zone or CPU architecture.

enum class HostPlistParse { kGood, kMalformed, kOutOfRange };

// Reads [sign] digits, or [sign] 0x hexadecimal digits. The range is -2^63 to 2^64 - 1; the value
// is `magnitude`, or its negative.
HostPlistParse HostParsePlistInteger(std::string_view text, bool* isNegative, UInt64* magnitude);

// Reads a decimal number with optional point and exponent, or nan, inf or infinity in any letter
// case with an optional sign. Returns false for any other text. A number outside the range of
// double becomes infinity or zero with its sign, as in other readers of such files: one odd number
// does not make a file unreadable.
bool HostParsePlistReal(std::string_view text, double* value);

// Reads YYYY-MM-DDThh:mm:ssZ and no other form; years 1 to 9999.
HostPlistParse HostParsePlistDate(std::string_view text, CFAbsoluteTime* time);

// Writes a number as printf's "%.17g" does in the C locale, or "nan", "+infinity" or "-infinity".
// No NUL. Returns the number of characters, at most kHostPlistRealRoom.
inline constexpr size_t kHostPlistRealRoom = 32;
size_t HostFormatPlistReal(double value, char* out);

// Writes a date in whole seconds, rounded down. No NUL. Returns false and writes nothing if it lies
// outside the years 1 to 9999.
inline constexpr size_t kHostPlistDateSize = 20;
bool HostFormatPlistDate(CFAbsoluteTime time, char* out);

// Returns whether a date lies in the years 1 to 9999.
bool HostIsPlistDate(CFAbsoluteTime time);

// Decodes base64, with white space anywhere, into `out`, which has room for 3 bytes for each 4
// characters or part of 4. Returns null, or the first character that does not belong there; that is
// the end if characters are missing.
const UInt8* HostDecodeBase64(const UInt8* text, size_t count, UInt8* out, size_t* decoded);

// Encodes `count` bytes, which is a multiple of 3 in all but the last call for a text. Returns the
// number of characters written: 4 for each 3 bytes or part of 3.
size_t HostEncodeBase64(const UInt8* bytes, size_t count, UInt8* out);
