#pragma once

#include <CoreServices/CoreServices.h>

// Tells whether a session daemon runs already, for those who must decide whether to start one.
// Nothing is claimed and nothing is started. Main thread only.

enum : int {
  kDaemonHereOrNowhere = 1,
  kDaemonElsewhere = 2,
};

// runningElsewhere  whether another process is the daemon; false in the process that is or has been
//                   the daemon itself, which is not looked for then.
// where             kDaemonElsewhere when one was found, else kDaemonHereOrNowhere.
// Result            0, also when there is none; else the failure of looking, with both outputs as
//                   for none.
OSStatus isSessionManagerAlreadyRunning(bool& runningElsewhere, int& where);
