#include <CoreServices/CoreServices.h>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "tools/values/error_names.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

static int RunStart(const CommandLine& line) {
  const char* const port = gSessionMonitorLaunchSpec.portName;
  if (SMCheckDaemonRunning() == 0) return TellOutcome(line, port, {"alreadyRunning"});
  const OSStatus err = SMVerifyDaemonRunning();
  return TellOutcome(line, port,
                     err == 0 ? Outcome{"started"} : Outcome{"failed", err, ExitForStatus(err)});
}

Verb StartVerb() {
  return {
      "start",
      "[--json]",
      "Starts the session daemon and waits until it has its port.",
      "How it is found and started can be changed by launch preferences. One that runs already\n"
      "counts as done.\n"
      "\n"
      "JSON: one object with port, outcome (started, alreadyRunning, failed) and error.\n",
      {kJsonOption},
      0,
      0,
      RunStart};
}
