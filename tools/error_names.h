#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

#include "tools/command_line.h"

// "-1708 (errAEEventNotHandled)", or the bare number when it has no name here.
std::string ErrorText(OSStatus status);

// The exit status that tells a failure of looking up or sending.
ExitStatus ExitForStatus(OSStatus status);
