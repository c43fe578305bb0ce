#pragma once

#include <string>

#include "bench/ipc_meeting.h"

// Measures the start of a daemon and its rest.

enum class IpcProgram {
  kEmpty,          // a C++ program with nothing in main; it has started when it has ended
  kSessionDaemon,  // has started when its port can be looked up
  kDBusDaemon,     // has started when it prints its address
};

// From the exec until the program has started, in microseconds. `folder` is for temporary files.
bool IpcMeasureStart(IpcProgram program, const IpcPlacement& placement, const std::string& folder,
                     double* microseconds);

struct IpcIdle {
  double wakeUps = 0;
  double cpuMs = 0;
  double ussKiB = 0;
  double rssKiB = 0;
};
// A started daemon that nobody speaks to, for `windowMs`.
bool IpcMeasureIdle(IpcProgram program, const IpcPlacement& placement, const std::string& folder,
                    int windowMs, IpcIdle* idle);
