#pragma once

#include <CoreServices/Processes.h>

#include "platform/host/processes/proc_status.h"

// This room knows a process by pid and by serial number, and starts programs.
//
// A serial number consists of a process's start time in clock ticks (high; the low 32 bits, 0
// counting as 1) and its pid (low). So it needs no registry, means the same in every process, and a
// pid that is used again gives another number. Any thread.

// Finds the number of a live process of this process's user. Returns 0, ESRCH if there is none, or
// the errno value if /proc cannot be read. A failure leaves `*psn` unchanged.
int HostFindSerialNumber(pid_t pid, ProcessSerialNumber* psn);
// Returns true if that gives a number.
bool HostSerialNumberOfPid(pid_t pid, ProcessSerialNumber* psn);

// Returns the pid that a number stands for, or 0 if no such process lives. { 0, kCurrentProcess }
// stands for this process.
pid_t HostPidOfSerialNumber(const ProcessSerialNumber& psn);

// A live process of this process's user, by a number as above.
struct HostProcess {
  pid_t pid = 0;
  ProcessSerialNumber number = {};
  HostProcessStatus status;
};
bool HostFindProcess(const ProcessSerialNumber& psn, HostProcess* process);
