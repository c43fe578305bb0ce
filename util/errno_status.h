#pragma once

#include <CoreServices/CoreServices.h>

// Converts an errno value to a status: the value itself, which is positive and not one of the
// platform's. 0 gives 0xC000, so that a failure whose cause was lost stays a failure. Call it only
// after a failure. Any thread.
constexpr OSStatus ErrnoToOSStatus(int error) { return error != 0 ? error : 0xC000; }
