#pragma once

#include <CoreServices/MacTypes.h>

// Properties of the system. Any thread.

enum : OSType {
  // 0xMMmb: major version in two decimal digits of 4 bits, minor, bug fix. 0x1040 is 10.4.
  gestaltSystemVersion = FourCC('s', 'y', 's', 'v'),
};

#pragma GCC visibility push(default)
extern "C" {

// gestaltUndefSelectorErr, with `response` untouched, for every other selector; paramErr for null.
OSErr Gestalt(OSType selector, SInt32* response);

}  // extern "C"
#pragma GCC visibility pop
