#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// Errors as text and as exit status. Pure functions, any thread.

// "(-1708, errAEEventNotHandled)", or "(-31999)" for a number without a name here.
std::string ErrorNumber(OSStatus status);

// The meaning of the error, and ErrorNumber: "no reply in time (-1712, errAETimeout)".
std::string ErrorSentence(OSStatus status);

// An object with "number" and "name", which is null for a number without a name here.
JsonValue ErrorModel(OSStatus status);

// The exit status for the result of looking up a port or sending an event.
ExitStatus ExitForStatus(OSStatus status);
