#include <cstdlib>

#include "daemon/session_monitor.h"
#include "util/app_error_utils.h"

// The session daemon: claims its port, handles events until the quit event and exits with 0. An
// unexpected exception ends it at once with 1, without clean-up.

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
