#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "tools/values/json_value.h"

// Converts property lists to JSON and back. JSON has neither dates nor data: they become strings, a
// date in UTC, data as base64. No recursion. Any thread; only one at a time may use a list.

// Keeps the order of dictionaries. Integers beyond +-(2^53 - 1), NaN and the infinities become
// strings, as in all JSON of this program.
JsonValue JsonOfPlist(CFTypeRef list);
// Writes the same as text, in pieces, so that a long list does not take memory a second time.
void WritePlistJson(CFTypeRef list, const std::function<void(std::string_view)>& write);

// Reads JSON as a list with mutable containers; the caller releases it. Whole numbers become
// integers (-2^63 to 2^64 - 1), numbers with a dot or an exponent become reals. Returns null with a
// message and its position if the text is not valid JSON, contains null (which property lists do
// not have), has more than 512 levels, or if the list would take more memory than 8 times the text,
// which is a part of that, and 4 MiB. `reached`, unless null, receives the number of bytes read
// until then.
CFTypeRef CreateFromJson(std::string_view text, std::string& problem, size_t* reached = nullptr);
