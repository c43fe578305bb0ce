#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <string_view>
#include <vector>

// Parameters of events as text, KEY:TYPE=VALUE, in both directions. Pure functions, any thread.

// A four-character code: exactly four printable characters, or 0x and exactly eight hexadecimal
// digits. Nothing else.
bool ParseCode(std::string_view text, FourCharCode& code);

// The code as four characters if they are printable and none of : = ', else 0x and eight digits.
std::string CodeText(FourCharCode code);

struct ParameterValue {
  AEKeyword key = 0;
  DescType type = typeNull;
  std::vector<char> bytes;  // as a descriptor of the type holds them
};

// False with a text that says what is wrong.
bool ParseParameter(std::string_view text, ParameterValue& value, std::string& problem);

// The parameters of an event or record, sorted as they stand, in the form that ParseParameter
// reads. Containers are printed as the platform prints descriptors.
std::vector<std::string> ParameterLines(const AEDesc& event);
