#pragma once

#include <CoreServices/MacTypes.h>

#pragma GCC visibility push(default)
extern "C" {

// Stops in the debugger that is attached to this process; without one nothing happens. Never ends
// the process. Any thread.
void Debugger(void);
void DebugStr(ConstStr255Param text);

}  // extern "C"
#pragma GCC visibility pop
