#pragma once

#include <CoreServices/CoreServices.h>

// The daemon's run, from the command line to the exit status. Main thread only.

// Reads the options from the second argument on: "-q", "-lp" or "-loadPrefs" FILE, "-sp" or
// "-savePrefs" FILE. If an option occurs twice, the last one is used. Other arguments, and an
// option without its value, are ignored. Stores the pointers; the texts are not copied.
void ParseSessionDaemonOptions(int argc, char** argv);

// Hook for choosing the log file. Leaves the default and returns 0.
OSStatus SetSessionDaemonLogfileName();

// Starts the daemon, runs the event loop until the quit event, and cleans up. If the start fails,
// in most cases because another copy owns the port, does not run the loop. Returns 0 in all cases.
int sessionMonitor();

OSStatus initializeSessionManager();  // the start; returns the first error
OSStatus termSessionManager();        // the clean-up, also after a failed start; returns 0
