#pragma once

#include <CoreServices/CoreServices.h>

// The daemon's life between command line and exit status. Main thread only.

// Takes the options from the second argument on: "-q", "-lp" or "-loadPrefs" FILE, "-sp" or
// "-savePrefs" FILE. The last occurrence wins; what matches no option, and an option whose value is
// missing, is passed over in silence. The strings are kept, not copied.
void ParseSessionDaemonOptions(int argc, char** argv);

// Where the daemon would choose a log file of its own: leaves the default and returns 0.
OSStatus SetSessionDaemonLogfileName();

// Starts, runs the event loop until a quit event, and tidies up. A start that fails (mostly because
// another copy owns the port) skips the loop and is no error of the process: always 0.
int sessionMonitor();

OSStatus initializeSessionManager();  // the start; 0 or the first failing step's status
OSStatus termSessionManager();        // the end, also after a failed start; always 0
