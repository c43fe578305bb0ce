#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// What /proc tells about a process. Any thread.

struct HostProcessStatus {
  uint64_t startTicks = 0;   // clock ticks from the machine's start to the process's
  uint64_t activeTicks = 0;  // clock ticks of processor time, user and system
  uid_t uid = 0;             // its owner
};

// False when there is no such process, when it has ended and only waits to be waited for, and for
// the kernel's own threads.
bool HostReadProcessStatus(pid_t pid, HostProcessStatus* status);

// The path of a process's program, "" when it cannot be read.
std::string HostProgramPath(pid_t pid);
