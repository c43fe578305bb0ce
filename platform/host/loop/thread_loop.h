#pragma once

#include <atomic>

// Runs the calling thread's loop in the default mode until `flag` is set and the loop woken. A stop
// or an empty mode does not end the run. Returns false if the thread cannot have a loop.
bool HostRunMainLoopUntil(const std::atomic<bool>& flag);

// Returns whether the main thread is inside a run of its loop, in any mode. Any thread.
bool HostMainLoopIsRunning();
