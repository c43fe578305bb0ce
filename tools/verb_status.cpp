#include <CoreServices/CoreServices.h>

#include <cstdio>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "tools/error_names.h"
#include "tools/outcome.h"
#include "tools/verbs.h"

int RunStatus(const CommandLine& line) {
  const char* const port = gSessionMonitorLaunchSpec.portName;
  const OSStatus err = SMCheckDaemonRunning();
  if (err == procNotFound) return TellOutcome(line, port, {"notRunning", 0, kExitNotFound});
  if (err != 0) return TellOutcome(line, port, {"failed", err, ExitForStatus(err)});
  if (!line.Has("--json")) std::printf("%s is running\n", port);
  return TellOutcome(line, port, {"running"});
}
