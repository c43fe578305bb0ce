#pragma once

#include <atomic>

// Runs the calling thread's loop in the default mode until `flag` is set (and the loop woken); a
// stop or an empty mode does not end it. False when the thread can have no loop.
bool HostRunMainLoopUntil(const std::atomic<bool>& flag);

// Whether the main thread is inside a run of its loop, of whatever mode. Any thread.
bool HostMainLoopIsRunning();
