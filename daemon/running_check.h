#pragma once

#include <CoreServices/CoreServices.h>

// Checks whether a session daemon runs, for a process that decides whether to start one. Claims and
// starts nothing. Main thread only.

enum : int {
  kDaemonHereOrNowhere = 1,
  kDaemonElsewhere = 2,
};

// runningElsewhere  True if another process is the daemon. In a process that is or was the daemon
//                   itself it is false, without a look-up.
// where             kDaemonElsewhere if another process is the daemon, else kDaemonHereOrNowhere.
// Result            0, also if there is no daemon. After a failed look-up its error, with false and
//                   kDaemonHereOrNowhere in the outputs.
OSStatus isSessionManagerAlreadyRunning(bool& runningElsewhere, int& where);
