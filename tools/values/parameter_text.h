#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/values/json_value.h"
#include "tools/values/value_types.h"

// Parameters of events as text, KEY:TYPE=VALUE, in both directions. Pure functions, any thread.

struct ParameterValue {
  AEKeyword key = 0;
  DescType type = typeNull;
  std::string bytes;  // as a descriptor of the type holds them
};

// Several numbers or codes of one type stand behind each other with commas. Hexadecimal bytes are
// those of numbers from the most significant on. False with a text that says what is wrong.
bool ParseParameter(std::string_view text, ParameterValue& value, std::string& problem);

// The parameters of an event or record by their model, sorted as they stand, in the form that
// ParseParameter reads. Containers are lists in square brackets, records and events in braces,
// with & before an attribute: for people only.
std::vector<std::string> ParameterLines(const JsonValue& parameters);
