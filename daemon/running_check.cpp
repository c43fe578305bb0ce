#include "daemon/running_check.h"

#include "clients/session_monitor.h"
#include "daemon/event_service.h"

OSStatus isSessionManagerAlreadyRunning(bool& runningElsewhere, int& where) {
  where = kDaemonHereOrNowhere;
  runningElsewhere = false;
  if (isAEHandlerRegistered()) return 0;
  const OSStatus err = SMCheckDaemonRunning();
  if (err == 0) {
    where = kDaemonElsewhere;
    runningElsewhere = true;
  }
  return err == procNotFound ? 0 : err;
}
