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

// Reads a parameter. Several numbers or codes of one type are separated by commas. In hexadecimal
// digits the most significant byte of a number comes first. Returns false with a message.
bool ParseParameter(std::string_view text, ParameterValue& value, std::string& problem);

// Returns the parameters of an event or record, given their model, in its order and in the form
// that ParseParameter reads. It does not read containers, which are for people only: lists in
// square brackets, records and events in braces, with & before an attribute.
std::vector<std::string> ParameterLines(const JsonValue& parameters);
