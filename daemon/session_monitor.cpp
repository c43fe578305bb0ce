#include "daemon/session_monitor.h"

#include <cstdio>
#include <cstring>

#include <Carbon/Carbon.h>

#include "clients/session_monitor.h"
#include "daemon/event_service.h"
#include "daemon/session_manager.h"
#include "util/app_error_utils.h"
#include "util/strings.h"

// Build switch: whether a notice tells the user that the start has failed.
#ifndef VLT_NOTIFY_ON_START_FAILURE
#define VLT_NOTIFY_ON_START_FAILURE false
#endif

namespace {

bool sQuitImmediately = false;
bool sNotifyUserOnStartFailure = VLT_NOTIFY_ON_START_FAILURE;

// Shows that the daemon failed to start, with the same text for every reason. The text is static
// because the notice refers to it until the user dismisses the notice.
void NotifyStartFailure() {
  static char text[1024];
  std::snprintf(text, sizeof text,
                "%s failed to start. Usually this is because another copy of the session daemon is "
                "already running.",
                VLTAppErrorUtils::getAppName());
  auto* const pascalText = reinterpret_cast<unsigned char*>(text);
  VLTAppErrorUtils::userNotify(cpstrcpy(pascalText, text, 255));
}

bool IsOption(const char* argument, const char* name, const char* longName) {
  return std::strcmp(argument, name) == 0 || std::strcmp(argument, longName) == 0;
}

}  // namespace

void ParseSessionDaemonOptions(int argc, char** argv) {
  sQuitImmediately = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-q") == 0) {
      sQuitImmediately = true;
    } else if (IsOption(argv[i], "-lp", "-loadPrefs")) {
      if (++i < argc) gSessionManager.setLoadPreferencesFilename(argv[i]);
    } else if (IsOption(argv[i], "-sp", "-savePrefs")) {
      if (++i < argc) gSessionManager.setSavePreferencesFilename(argv[i]);
    }
  }
}

OSStatus SetSessionDaemonLogfileName() { return 0; }

int sessionMonitor() {
  const OSStatus status = initializeSessionManager();
  if (status == 0) {
    RunApplicationEventLoop();
  } else if (sNotifyUserOnStartFailure) {
    NotifyStartFailure();
  }
  termSessionManager();
  return 0;
}

OSStatus initializeSessionManager() {
  OSStatus err = gSessionManager.init();
  if (err == 0) err = gSessionManager.finishInit();
  if (err == 0) err = installAEHandlers();
  // This process owns the port now, so it sends the quit event to itself. The event waits for the
  // loop.
  if (err == 0 && sQuitImmediately) err = SMQuitDaemon();
  return err;
}

OSStatus termSessionManager() {
  gSessionManager.savePreferences();
  return removeAEHandlers();
}
