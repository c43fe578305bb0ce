#pragma once

#include <CoreServices/MacTypes.h>
#include <time.h>

// Converts `time` to the platform's dates: local time in seconds since the beginning of 1904.
// Returns 0 for a time before the range, and the greatest value for a time after it. Any thread.
UInt32 HostLocalDate(time_t time);
