#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// What /proc tells about a process. Any thread.

// Start time in clock ticks since boot of this process; 0 when /proc is not readable. Cached.
uint64_t HostOwnStartTicks();

// The same for another process; false when it is gone or not readable. `uid` gets its owner.
bool HostReadProcess(pid_t pid, uint64_t* startTicks, uid_t* uid);

// The path of a process's program, "" when it cannot be read.
std::string HostProgramPath(pid_t pid);
