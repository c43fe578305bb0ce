#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "tools/values/json_value.h"

// Converts property lists to JSON and back. JSON has neither dates nor data: they become strings, a
// date in UTC, data as base64. No recursion. Any thread; only one at a time may use a list.

// Keeps the order of dictionaries. Integers beyond +-(2^53 - 1), NaN and the infinities become
// strings, as in all JSON of this program.
JsonValue JsonOfPlist(CFTypeRef list);

// Reads JSON as a list with mutable containers; the caller releases it. Whole numbers become
// integers
// (-2^63 to 2^64 - 1), numbers with a dot or an exponent become reals. Returns null with a message
// and its position if the text is not valid JSON, contains null (which property lists do not have)
// or has more than 512 levels. `reached`, unless null, receives the number of bytes read until
// then.
CFTypeRef CreateFromJson(std::string_view text, std::string& problem, size_t* reached = nullptr);
