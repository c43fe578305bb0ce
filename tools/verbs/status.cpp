#include <CoreServices/CoreServices.h>

#include <string>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "platform/host/session/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/program_state.h"
#include "tools/output.h"
#include "tools/values/absence.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

// The port or application that the user named, and its state.
struct Report {
  std::string subject;  // port name, or the word of the command line
  bool isPort = true;
  Outcome outcome = {"notRunning", 0, kExitNotFound};
  ProgramState state;
  std::vector<std::string> hints;  // lines for people
  const VLTLaunchSpec* specification = nullptr;
};

// One of the package's daemons that does not run: what its launcher would open.
void AddInstallation(Report& report) {
  const LaunchPlan plan = PlanLaunch(*report.specification);
  if (!plan.problem.empty()) report.hints.push_back(plan.problem);
  if (plan.search.Found()) {
    report.state = StateOfApplication(FoundApplication(plan.search));
  } else {
    report.hints.push_back(
        "it is not installed: no application folder has it; vltctl apps lists "
        "what is");
  }
}

Report ReportOnSessionDaemon() {
  Report report;
  report.specification = &gSessionMonitorLaunchSpec;
  report.subject = gSessionMonitorLaunchSpec.portName;
  const OSStatus err = SMCheckDaemonRunning();
  if (err == 0) {
    report.outcome = {"running"};
    report.state = StateOfPort(report.subject);
    return report;
  }
  if (err != procNotFound) report.outcome = {"failed", err, ExitForStatus(err)};
  AddInstallation(report);
  if (err != procNotFound && !report.hints.empty()) {
    report.outcome.problem = report.hints.front();
    report.hints.erase(report.hints.begin());
  }
  return report;
}

bool IsOwned(const std::string& name) {
  for (const HostNameInfo& each : HostListNames()) {
    if (each.name == name) return true;
  }
  return false;
}

// A word is a port name if a process owns it, else an application.
Report ReportOn(const std::string& word) {
  Report report;
  report.subject = word;
  report.specification = LaunchSpecificationOf(word);
  if (IsOwned(word)) {
    report.outcome = {"running"};
    report.state = StateOfPort(word);
    return report;
  }
  const Search search = FindApplication(word);
  if (search.Found()) {
    report.isPort = false;
    report.state = StateOfApplication(FoundApplication(search));
    if (report.state.process.pid > 0) report.outcome = {"running"};
    return report;
  }
  if (report.specification != nullptr) {
    AddInstallation(report);
    return report;
  }
  report.outcome = {"notFound", 0, kExitNotFound};
  report.hints = WhyNobodyOwns(word);
  report.hints.push_back("it is not an application either; vltctl apps lists those");
  return report;
}

}  // namespace

static int RunStatus(const CommandLine& line) {
  Report report = line.words.empty() ? ReportOnSessionDaemon() : ReportOn(line.words[0]);
  const bool explain = line.Has("--explain");
  LaunchPlan plan;
  const bool hasPlan = explain && report.specification != nullptr;
  if (hasPlan) plan = PlanLaunch(*report.specification);
  if (explain && !hasPlan) {
    return Say("status: --explain is about a daemon that the launcher starts; " +
               Quoted(report.subject) + " is not one"),
           kExitUsage;
  }
  if (line.Has("--json")) {
    JsonValue model = OutcomeModel(report.subject, report.outcome);
    AddState(model, report.state);
    if (hasPlan) model.Add("launch", PlanModel(plan));
    PrintJson(model);
  } else {
    if (std::string(report.outcome.name) == "running") {
      Print(EscapedBytes(report.subject) + " is running\n");
    }
    PrintTable(StateRows(report.state));
    if (hasPlan) {
      PrintSearch(plan.search);
      PrintTable(PlanRows(plan));
    }
  }
  SayOutcome(report.subject, report.outcome);
  for (const std::string& hint : report.hints) Say(hint);
  return report.outcome.exit;
}

Verb StatusVerb() {
  return {"status",
          "[PORT|PATH|BUNDLE-ID|'SIGN'] [--explain] [--json]",
          "Shows whether a program runs, what it takes, and how it ended.",
          "Without an argument it shows the session daemon. The argument is a port name,\n"
          "or an application as for launch. The exit status is 0 if the program runs and\n"
          "3 if it does not. Never starts anything.\n"
          "\n"
          "Of a program that does not run it shows whether it is installed, how its last\n"
          "process ended as far as its opener has seen that, and its last words. What a\n"
          "program that was started by opening it writes to its standard output and error\n"
          "is in $XDG_STATE_HOME/veltrane/log/IDENTIFIER.log.\n"
          "\n"
          "Examples: vltctl status\n"
          "          vltctl status com.veltrane.vltdeviced.1.1 --explain\n"
          "\n"
          "JSON: one object with port (the argument), outcome (running, notRunning,\n"
          "notFound, failed), error, application, identifier, program, pid, since,\n"
          "ageSeconds, memoryBytes, descriptors, connections, ports, log, lastEnd,\n"
          "lastLines and problem. Members are null if unknown. With --explain also\n"
          "launch, an object with preferences, hasPreferences, problem, findByPortName,\n"
          "findBySignature, launchIfNotFound, retries, interval, opensNext, next, ways\n"
          "and broken.\n",
          {{"--explain", nullptr, "show what the launcher would do to start it"}, kJsonOption},
          0,
          1,
          RunStatus};
}
