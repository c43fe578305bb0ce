#pragma once

#include <CoreServices/CoreServices.h>

// The platform's code for an errno value: 0 for 0, ioErr for what has no code of its own.
OSStatus ErrnoToOSStatus(int error);
