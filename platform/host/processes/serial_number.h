#pragma once

#include <CoreServices/Processes.h>

#include "platform/host/processes/proc_status.h"

// A serial number is made of what the kernel tells about a process: high is its start time in clock
// ticks (the low 32 bits, 0 counting as 1), low its pid. So it needs no registry, means the same in
// every process, and a pid that is used again gives another number. Any thread.

// The number of a live process of our own user. False when there is none; `*psn` is unchanged then.
bool HostSerialNumberOfPid(pid_t pid, ProcessSerialNumber* psn);

// The pid that a number names, 0 when no such process lives. { 0, kCurrentProcess } is ourselves.
pid_t HostPidOfSerialNumber(const ProcessSerialNumber& psn);

// A live process of our own user, by a number as above.
struct HostProcess {
  pid_t pid = 0;
  ProcessSerialNumber number = {};
  HostProcessStatus status;
};
bool HostFindProcess(const ProcessSerialNumber& psn, HostProcess* process);
