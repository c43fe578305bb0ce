#pragma once

#include <CoreServices/MacTypes.h>

// The date and the location of the machine, to be shown to people: the date changes with each step
// of the wall clock. Use DriverServices.h to measure time. Any thread.

// The machine's location. The offset is a number on every CPU: its low 24 bits are the present
// seconds east of Greenwich as a signed number, and its high byte is the daylight byte.
struct MachineLocation {
  Fract latitude;   // 2.30, of a quarter turn; 0: not known
  Fract longitude;  // likewise
  union {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    SInt8 dlsDelta;  // 0x80: daylight saving time is in force
#else
    __extension__ struct {
      UInt8 lowOfDelta[3];
      SInt8 dlsDelta;
    };
#endif
    SInt32 gmtDelta;
  } u;
};
static_assert(sizeof(MachineLocation) == 12);

#pragma GCC visibility push(default)
extern "C" {

// Stores the local time in seconds since the beginning of 1904, which reaches to 2040; 0 before and
// the greatest value after that.
void GetDateTime(UInt32* seconds);

// Uses the time zone of the process's environment. Latitude and longitude are not known.
void ReadLocation(MachineLocation* location);

}  // extern "C"
#pragma GCC visibility pop
