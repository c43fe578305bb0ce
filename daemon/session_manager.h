#pragma once

#include <CoreServices/CoreServices.h>

class VLTPreferences;

// SessionManager is the daemon's central object: where its preferences would come from and go to,
// and when. The preference operations are hooks; this daemon keeps no settings of its own, and the
// file names of the command line are recorded, not read. Main thread only.
class SessionManager {
 public:
  constexpr SessionManager() = default;
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;
  constexpr virtual ~SessionManager() = default;

  OSStatus init();        // loads the preferences
  OSStatus finishInit();  // saves them; from then on changes are saved

  OSStatus loadPreferences();                               // hook: 0
  OSStatus loadPreferences(VLTPreferences& preferences);    // loadSMPreferences
  OSStatus loadSMPreferences(VLTPreferences& preferences);  // hook for our own keys: 0
  OSStatus savePreferences();                               // hook: 0
  OSStatus savePreferences(VLTPreferences& preferences);    // hook: 0

  // Saves when there are changes and the start has finished. Always 0, whatever saving said.
  OSStatus prefsModified();

  // Borrowed for the life of the manager; they point into the command line.
  void setLoadPreferencesFilename(const char* name) { loadPreferencesFilename = name; }
  void setSavePreferencesFilename(const char* name) { savePreferencesFilename = name; }

  OSStatus identify();  // 0

 protected:
  const char* loadPreferencesFilename = nullptr;
  const char* savePreferencesFilename = nullptr;
  bool preferencesModified = false;
  bool initialised = false;
};

// The one manager. Exists before main and until the process ends.
extern SessionManager gSessionManager;
