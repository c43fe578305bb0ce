#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// "-1708 (errAEEventNotHandled)", or the bare number when it has no name here.
std::string ErrorText(OSStatus status);

// An object with "number" and "name", null when it has none here.
JsonValue ErrorModel(OSStatus status);

// The exit status that tells a failure of looking up or sending.
ExitStatus ExitForStatus(OSStatus status);
