#include <CoreServices/CoreServices.h>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "tools/error_names.h"
#include "tools/outcome.h"
#include "tools/verbs.h"

int RunStart(const CommandLine& line) {
  const char* const port = gSessionMonitorLaunchSpec.portName;
  if (SMCheckDaemonRunning() == 0) return TellOutcome(line, port, {"alreadyRunning"});
  const OSStatus err = SMVerifyDaemonRunning();
  return TellOutcome(line, port,
                     err == 0 ? Outcome{"started"} : Outcome{"failed", err, ExitForStatus(err)});
}
