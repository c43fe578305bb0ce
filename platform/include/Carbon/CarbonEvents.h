#pragma once

#include <CoreServices/MacTypes.h>

#pragma GCC visibility push(default)
extern "C" {

// Runs the main run loop (default mode) until QuitApplicationEventLoop; does not return merely
// because there is nothing to do, nor on CFRunLoopStop. While it runs, the process answers events
// that are addressed to its serial number (with errAEEventNotHandled). Main thread only.
void RunApplicationEventLoop(void);

// Marks the loop as finished and wakes it; the loop ends after the callback in progress. Kept when
// the loop has not started yet. Any number of times.
void QuitApplicationEventLoop(void);

}  // extern "C"
#pragma GCC visibility pop
