#include "daemon/session_manager.h"

constinit SessionManager gSessionManager;

OSStatus SessionManager::init() { return loadPreferences(); }

OSStatus SessionManager::finishInit() {
  const OSStatus err = savePreferences();
  if (err == 0) initialised = true;
  return err;
}

OSStatus SessionManager::loadPreferences() { return 0; }

OSStatus SessionManager::loadPreferences(VLTPreferences& preferences) {
  return loadSMPreferences(preferences);
}

OSStatus SessionManager::loadSMPreferences(VLTPreferences&) { return 0; }

OSStatus SessionManager::savePreferences() { return 0; }

OSStatus SessionManager::savePreferences(VLTPreferences&) { return 0; }

OSStatus SessionManager::prefsModified() {
  if (preferencesModified && initialised) savePreferences();
  return 0;
}

OSStatus SessionManager::identify() { return 0; }
