#include <CoreServices/CoreServices.h>

#include <string>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "tools/output.h"
#include "tools/values/error_names.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

static int RunStatus(const CommandLine& line) {
  const char* const port = gSessionMonitorLaunchSpec.portName;
  const OSStatus err = SMCheckDaemonRunning();
  if (err == procNotFound) return TellOutcome(line, port, {"notRunning", 0, kExitNotFound});
  if (err != 0) return TellOutcome(line, port, {"failed", err, ExitForStatus(err)});
  if (!line.Has("--json")) Print(port + std::string(" is running\n"));
  return TellOutcome(line, port, {"running"});
}

Verb StatusVerb() {
  return {"status",
          "[--json]",
          "Shows whether the session daemon runs.",
          "The exit status is 0 if it runs and 3 if it does not. Never starts it.\n"
          "\n"
          "JSON: one object with port, outcome (running, notRunning, failed) and error.\n",
          {kJsonOption},
          0,
          0,
          RunStatus};
}
