#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// What the verbs about devices share.

struct DeviceSetting {
  DescType type = typeNull;
  std::string bytes;  // as a descriptor of the type holds them
};

// The value as it is, of whatever size. What DMGetDevicePreference says.
OSStatus ReadDeviceSetting(SInt32 deviceID, const std::string& key, bool isAttribute,
                           DeviceSetting& setting);
JsonValue SettingModel(const DeviceSetting& setting);

// "--timeout" for each attempt of the requests to come, ten seconds without it. False, having said
// so, when it is no time.
bool SetDeviceTimeout(const CommandLine& line);

// Says what came of a request. The exit status.
int TellDeviceFailure(const std::string& verb, OSStatus err);

// A decimal number, or a hexadecimal one behind 0x, of 32 bits, and nothing else.
bool ParseWhole(const std::string& text, SInt32& number);
// The rest of a message that begins with a text that ParseWhole refuses.
inline constexpr char kNotAWhole[] =
    " is not a 32-bit number, decimal or 0x and hexadecimal digits";
