#pragma once

#include <sys/types.h>

#include <cstdint>

// The kernel's information about one process at this moment.
struct IpcProcSnapshot {
  int64_t wakeUps = 0;   // voluntary context switches: each is a wait that ended
  int64_t switches = 0;  // all: one that is kept busy is pushed aside before it waits
  int64_t cpuTime = 0;   // nanoseconds, user and system
  int64_t rssKiB = 0;    // resident, shared pages included
  int64_t ussKiB = 0;    // resident and nobody else's
  int64_t threads = 0;
  int64_t descriptors = 0;
};

// Returns false if there is no such process or this user may not read it.
bool IpcReadProcess(pid_t pid, IpcProcSnapshot* snapshot);
