#pragma once

#include <CoreServices/CoreServices.h>

class VLTPreferences;

// SessionManager is the daemon's central object. It decides when the daemon's preferences are
// loaded and saved. The operations on preferences are hooks that do nothing, because this daemon
// has no settings. The file names from the command line are stored but never opened. Main thread
// only.
class SessionManager {
 public:
  constexpr SessionManager() = default;
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;
  constexpr virtual ~SessionManager() = default;

  OSStatus init();        // loads the preferences
  OSStatus finishInit();  // saves them, and from then on prefsModified saves changes

  OSStatus loadPreferences();                               // hook: returns 0
  OSStatus loadPreferences(VLTPreferences& preferences);    // calls loadSMPreferences
  OSStatus loadSMPreferences(VLTPreferences& preferences);  // hook for the daemon's keys: returns 0
  OSStatus savePreferences();                               // hook: returns 0
  OSStatus savePreferences(VLTPreferences& preferences);    // hook: returns 0

  // Saves the preferences if they have changed and the start has finished. Returns 0, also if
  // saving fails.
  OSStatus prefsModified();

  // Store the pointers. The texts have to outlive the manager; they belong to the command line.
  void setLoadPreferencesFilename(const char* name) { loadPreferencesFilename = name; }
  void setSavePreferencesFilename(const char* name) { savePreferencesFilename = name; }

  OSStatus identify();  // returns 0

 protected:
  const char* loadPreferencesFilename = nullptr;
  const char* savePreferencesFilename = nullptr;
  bool preferencesModified = false;
  bool initialised = false;
};

// The manager of this process. Exists before main and until the process ends.
extern SessionManager gSessionManager;
