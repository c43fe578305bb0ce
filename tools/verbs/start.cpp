#include <CoreServices/CoreServices.h>

#include <string>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "platform/host/applications/introspect.h"
#include "tools/values/error_names.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

static int RunStart(const CommandLine& line) {
  const char* const port = gSessionMonitorLaunchSpec.portName;
  if (SMCheckDaemonRunning() == 0) return TellOutcome(line, port, {"alreadyRunning"});
  HostOpenDespitePauses();
  const OSStatus err = SMVerifyDaemonRunning();
  if (err == 0) return TellOutcome(line, port, {"started"});
  Outcome failed = {"failed", err, ExitForStatus(err)};
  if (err == procNotFound) {
    failed.problem =
        std::string("is not running and could not be started; vltctl launch --explain ") +
        gSessionMonitorLaunchSpec.bundleID + " shows why";
  }
  return TellOutcome(line, port, failed);
}

Verb StartVerb() {
  return {"start",
          "[--json]",
          "Starts the session daemon and waits until it owns its port.",
          "Launch preferences can change how the daemon is found and started. If it\n"
          "already runs, that counts as success.\n"
          "\n"
          "JSON: one object with port, outcome (started, alreadyRunning, failed) and\n"
          "error.\n",
          {kJsonOption},
          0,
          0,
          RunStart};
}
