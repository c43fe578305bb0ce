#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "tools/values/json_value.h"

// Property lists as JSON and back. JSON has no dates and no data: they become strings, a date in
// UTC, data as base64. Pure functions, any thread, no recursion.

// Members in the order of the dictionary. Integers beyond +-(2^53 - 1), NaN and the infinities are
// strings, as in all JSON of this program.
JsonValue JsonOfPlist(CFTypeRef list);

// Mutable containers; the caller releases it. Whole numbers become integers (of -2^63 to 2^64 - 1),
// those with a point or an exponent reals. Null with what is wrong and where: no JSON by the
// letter, a null (which property lists do not have), more than 512 levels. `reached`, when there is
// one, gets how many bytes were read until then.
CFTypeRef CreateFromJson(std::string_view text, std::string& problem, size_t* reached = nullptr);
