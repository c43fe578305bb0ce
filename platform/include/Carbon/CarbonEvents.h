#pragma once

#include <CoreServices/MacTypes.h>

#pragma GCC visibility push(default)
extern "C" {

// Runs the main run loop in the default mode until QuitApplicationEventLoop is called; neither an
// idle loop nor CFRunLoopStop ends it. Meanwhile events that are addressed to this process's serial
// number get the reply errAEEventNotHandled. Main thread only.
void RunApplicationEventLoop(void);

// Marks the loop as finished and wakes it; the loop ends after the callback in progress. If the
// loop has not started yet, it ends at its start. May be called any number of times.
void QuitApplicationEventLoop(void);

}  // extern "C"
#pragma GCC visibility pop
