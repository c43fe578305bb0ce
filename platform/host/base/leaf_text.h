#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstddef>
#include <string_view>

// The leaves of property lists as text: integers, reals, dates, base64. Pure functions; neither
// locale nor time zone plays a part, and every host gives the same characters and values.

enum class HostPlistParse { kGood, kMalformed, kOutOfRange };

// [sign] digits, or [sign] 0x hexadecimal digits. In range are -2^63 to 2^64 - 1; the value is
// `magnitude`, or its negative.
HostPlistParse HostParsePlistInteger(std::string_view text, bool* isNegative, UInt64* magnitude);

// Decimal with point and exponent, or nan, inf, infinity in any case with an optional sign; false
// for all else. What is too large becomes infinity and what is too small zero, each with its sign,
// as other readers of such files have it, so that one odd number does not make a file unreadable.
bool HostParsePlistReal(std::string_view text, double* value);

// YYYY-MM-DDThh:mm:ssZ and nothing else, years 1 to 9999.
HostPlistParse HostParsePlistDate(std::string_view text, CFAbsoluteTime* time);

// As printf's "%.17g" would in the C locale; "nan", "+infinity", "-infinity". At most
// kHostPlistRealRoom characters, no NUL. Returns their number.
inline constexpr size_t kHostPlistRealRoom = 32;
size_t HostFormatPlistReal(double value, char* out);

// Whole seconds, fractions cut off towards the past. False, with nothing stored, outside the years
// 1 to 9999. No NUL.
inline constexpr size_t kHostPlistDateSize = 20;
bool HostFormatPlistDate(CFAbsoluteTime time, char* out);

// Whether a date lies in the years 1 to 9999.
bool HostIsPlistDate(CFAbsoluteTime time);

// Decodes base64 with white space anywhere into `out`, which has room for 3 bytes per 4 characters
// begun. Null when all was good, else the first character that does not belong there (the end, when
// characters are missing).
const UInt8* HostDecodeBase64(const UInt8* text, size_t count, UInt8* out, size_t* decoded);

// Encodes `count` bytes; all but the last call of a text take a multiple of 3. Returns the number
// of characters put, 4 for each 3 bytes begun.
size_t HostEncodeBase64(const UInt8* bytes, size_t count, UInt8* out);
