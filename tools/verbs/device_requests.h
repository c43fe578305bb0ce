#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// Shared by the verbs about devices. One thread.

struct DeviceSetting {
  DescType type = typeNull;
  std::string bytes;  // as a descriptor of the type holds them
};

// Reads a value with its own type, of any size. Returns the result of DMGetDevicePreference or
// DMGetDeviceAttribute; errAEBufferTooSmall if the value keeps growing.
OSStatus ReadDeviceSetting(SInt32 deviceID, const std::string& key, bool isAttribute,
                           DeviceSetting& setting);
JsonValue SettingModel(const DeviceSetting& setting);

// Lists all devices, however many there are, in the monitor's order: the id and the attribute
// "name", null without one.
struct NamedDevice {
  SInt32 id = 0;
  JsonValue name;
};
OSStatus ListDevices(std::vector<NamedDevice>& devices);
// Returns an entry of the status list as KEY:TYPE=VALUE, on one line.
std::string StatusText(const JsonValue& entry);

// Sets the time-out for each attempt of later requests: the value of --timeout, or ten seconds.
// Returns false, after a message, if the value is not a number of seconds.
bool SetDeviceTimeout(const CommandLine& line);

// Prints the message about a failed request and returns the exit status. `about` names the device
// and the key that were asked for; "" for a request about all devices.
int TellDeviceFailure(const std::string& verb, OSStatus err, const std::string& about = "");

// Reads a 32-bit number, decimal or 0x and hexadecimal digits, and nothing else.
bool ParseWhole(const std::string& text, SInt32& number);
// The rest of a message that begins with a text that ParseWhole refuses.
inline constexpr char kNotAWhole[] =
    " is not a 32-bit number, decimal or 0x and hexadecimal digits";
