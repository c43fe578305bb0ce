#pragma once

#include <CoreServices/MacTypes.h>
#include <time.h>

// A moment as the platform's dates count it: local time, in seconds since the beginning of 1904. 0
// or the greatest value for what lies outside. Any thread.
UInt32 HostLocalDate(time_t time);
