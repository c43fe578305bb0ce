#include <CoreServices/CoreServices.h>

#include <string>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "platform/host/applications/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/program_state.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

// Why the daemon could not be started: each way, the switches, and the last lines of output of a
// program that was started.
std::vector<std::string> HintsFor(const LaunchPlan& plan) {
  std::vector<std::string> hints;
  if (!plan.problem.empty()) hints.push_back(plan.problem);
  for (const Way& way : plan.search.ways) {
    hints.push_back(std::string("by ") + way.name + ": " + (way.found ? "found, " : "") +
                    OneLine(way.text));
  }
  for (const std::string& text : plan.search.broken) hints.push_back("broken: " + OneLine(text));
  if (!plan.search.Found() || !plan.launchIfNotFound) {
    hints.push_back(NextStep(plan));
    return hints;
  }
  const ProgramState state = StateOfApplication(FoundApplication(plan.search));
  if (!state.application.problem.empty()) hints.push_back(state.application.problem);
  if (!state.lastEnd.empty()) hints.push_back("last end: " + state.lastEnd);
  for (const std::string& text : state.lastLines) hints.push_back("it said: " + OneLine(text));
  if (!state.log.empty()) hints.push_back("its log is " + OneLine(state.log));
  return hints;
}

int Finish(const CommandLine& line, const Outcome& outcome) {
  const std::string port = gSessionMonitorLaunchSpec.portName;
  SayOutcome(port, outcome);
  const bool explain = line.Has("--explain");
  const LaunchPlan plan = explain ? PlanLaunch(gSessionMonitorLaunchSpec) : LaunchPlan();
  if (line.Has("--json")) {
    JsonValue model = OutcomeModel(port, outcome);
    if (explain) model.Add("launch", PlanModel(plan));
    PrintJson(model);
  } else if (explain) {
    PrintSearch(plan.search);
    PrintTable(PlanRows(plan));
  }
  return outcome.exit;
}

}  // namespace

static int RunStart(const CommandLine& line) {
  if (SMCheckDaemonRunning() == 0) return Finish(line, {"alreadyRunning"});
  HostOpenDespitePauses();
  const OSStatus err = SMVerifyDaemonRunning();
  if (err == 0) return Finish(line, {"started"});
  Outcome failed = {"failed", err, ExitForStatus(err)};
  const LaunchPlan plan = PlanLaunch(gSessionMonitorLaunchSpec);
  if (err == procNotFound) failed.problem = "is not running and could not be started";
  failed.hints = HintsFor(plan);
  if (err != procNotFound && !plan.problem.empty()) {
    failed.problem = plan.problem;
    failed.hints = {NextStep(plan)};
  }
  return Finish(line, failed);
}

Verb StartVerb() {
  return {"start",
          "[--explain] [--json]",
          "Starts the session daemon and waits until it owns its port.",
          "Launch preferences can change how the daemon is found and started. If it\n"
          "already runs, that counts as success. A failure is reported with each way that\n"
          "was tried.\n"
          "\n"
          "Example: vltctl start --explain\n"
          "\n"
          "JSON: one object with port, outcome (started, alreadyRunning, failed) and\n"
          "error. With --explain also launch, as for status.\n",
          {{"--explain", nullptr, "show what the launcher does to start it"}, kJsonOption},
          0,
          0,
          RunStart};
}
