#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// The state of a process, as /proc reports it. Any thread.

struct HostProcessStatus {
  uint64_t startTicks = 0;   // clock ticks from the machine's start to the process's
  uint64_t activeTicks = 0;  // clock ticks of processor time, user and system
  uid_t uid = 0;             // its owner
};

// Returns 0, or ESRCH if there is no such process; zombies and the kernel's own threads do not
// count as processes. Any other errno value is the reason why /proc could not be read.
int HostReadProcessStatus(pid_t pid, HostProcessStatus* status);

// Returns the path of a process's program, or "" if it cannot be read.
std::string HostProgramPath(pid_t pid);
