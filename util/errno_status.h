#pragma once

#include <CoreServices/CoreServices.h>

// An errno value as a status: the value itself, a positive number and no platform code. 0 gives
// 0xC000, so that a failure whose cause was lost is none the less a failure: callers convert only
// what has failed.
constexpr OSStatus ErrnoToOSStatus(int error) { return error != 0 ? error : 0xC000; }
