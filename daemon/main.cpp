#include <cstdlib>

#include "daemon/session_monitor.h"
#include "util/app_error_utils.h"

// The session daemon: claims the session's port, answers events until a quit event, exits with 0.
// An exception that nobody expected ends it at once, with 1 and no clean-up.

int main(int argc, char** argv) {
  try {
    if (argc > 0) VLTAppErrorUtils::setAppName(argv[0]);
    ParseSessionDaemonOptions(argc, argv);
    SetSessionDaemonLogfileName();
    return sessionMonitor();
  } catch (...) {
    std::exit(1);
  }
}
