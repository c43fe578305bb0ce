#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>

#include "aeport/event.h"
#include "launch/launch_spec.h"
#include "platform/host/session/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/program_state.h"
#include "tools/applications/search.h"
#include "tools/values/absence.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"
#include "util/bootstrap_error.h"

// Ends a program and, to restart it, opens it again.

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr int kDefaultTicks = 10 * 60;
constexpr int kTicksPerSecond = 60;
constexpr auto kAfterSignal = std::chrono::seconds(2);

// A process that is held by a file descriptor, so that a later one with the same pid is not
// mistaken for it.
class HeldProcess {
 public:
  explicit HeldProcess(pid_t pid) : descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~HeldProcess() {
    if (descriptor >= 0) close(descriptor);
  }
  HeldProcess(const HeldProcess&) = delete;
  HeldProcess& operator=(const HeldProcess&) = delete;

  // Returns false if the time ends first.
  bool WaitForEnd(Clock::time_point end) const {
    if (descriptor < 0) return true;  // it has ended before it could be held
    for (;;) {
      const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now()).count();
      pollfd entry = {descriptor, POLLIN, 0};
      const int ready = poll(&entry, 1, static_cast<int>(std::clamp<long long>(left, 0, 1 << 30)));
      if (ready > 0) return true;
      if (ready == 0) return false;
      if (errno != EINTR) return false;
    }
  }

  void Signal(int number) const {
    if (descriptor >= 0) syscall(SYS_pidfd_send_signal, descriptor, number, nullptr, 0);
  }

 private:
  int descriptor;
};

// The port or application that the user named, and the programs of it that run.
struct Target {
  std::string word;
  ProgramState state;
  std::string port;  // to which the quit event goes; "" without one
  bool isKnown = false;
};

Target FindTarget(const CommandLine& line) {
  Target target;
  target.word = line.words.empty() ? gSessionMonitorLaunchSpec.portName : line.words[0];
  target.state = StateOfPort(target.word);
  target.isKnown = target.state.process.pid > 0;
  if (target.isKnown) {
    target.port = target.word;
    return target;
  }
  target.isKnown = LaunchSpecificationOf(target.word) != nullptr;
  const Search search = FindApplication(target.word);
  if (!search.Found()) return target;
  target.isKnown = true;
  target.state = StateOfApplication(FoundApplication(search));
  if (!target.state.ports.empty()) target.port = target.state.ports[0];
  return target;
}

// Sends the quit event without waiting for more than the queue's room: the end of the process is
// the reply that counts.
OSStatus AskToQuit(const std::string& port, int ticks) {
  VLTPortDestinationAddress address(port.c_str());
  VLTPortAppleEvent event(kCoreEventClass, kAEQuitApplication, kAENoReply, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = event.sendEvent(0, ticks, kAENormalPriority);
  event.finalizeEvent();
  return err;
}

// Returns the outcome: stopped, killed, notRunning, stillRunning or failed.
Outcome Stop(const Target& target, int ticks, bool force) {
  const pid_t pid = target.state.process.pid;
  if (pid <= 0) return {"notRunning"};
  const HeldProcess process(pid);
  const auto end = Clock::now() + Milliseconds(ticks * 1000LL / kTicksPerSecond);
  OSStatus err = 0;
  if (target.port.empty()) {
    if (!force) {
      return {"failed", procNotFound, kExitRefused,
              "it has no port to send the quit event to; --force ends it by signals"};
    }
  } else {
    err = AskToQuit(target.port, ticks);
    const bool isSent = err == 0 || IsBootstrapError(err) || err == connectionInvalid;
    if (!isSent && !force) return {"failed", err, ExitForReply(err)};
    if (isSent && process.WaitForEnd(end)) return {"stopped"};
  }
  if (!force) {
    return {"stillRunning",
            0,
            kExitTimeout,
            "",
            {"process " + std::to_string(pid) + " got the quit event; --force ends it by signals"}};
  }
  for (const int number : {SIGTERM, SIGKILL}) {
    process.Signal(number);
    if (process.WaitForEnd(Clock::now() + kAfterSignal)) return {"killed"};
  }
  return {"stillRunning", 0, kExitTimeout};
}

JsonValue ModelOf(const Target& target, const Outcome& outcome) {
  JsonValue model = OutcomeModel(target.word, outcome);
  const pid_t pid = target.state.process.pid;
  model.Add("pid", pid > 0 ? JsonValue::Integer(pid) : JsonValue());
  AddBytesOrNull(model, "application", target.state.application.path);
  return model;
}

int NotFound(const CommandLine& line, const Target& target) {
  Outcome outcome = {"notFound", 0, kExitNotFound, "", WhyNobodyOwns(target.word)};
  outcome.hints.push_back("it is not an application either; vltctl apps lists those");
  SayOutcome(target.word, outcome);
  if (line.Has("--json")) PrintJson(ModelOf(target, outcome));
  return outcome.exit;
}

bool WaitForPort(const std::string& name, Clock::time_point end) {
  for (;;) {
    if (StateOfPort(name).process.pid > 0) return true;
    if (Clock::now() >= end) return false;
    usleep(2000);
  }
}

// Opens the program that ran before, or the application that was named.
Outcome OpenAgain(const Target& target, int ticks, pid_t* pid) {
  const HostApplicationInfo& app = target.state.application;
  const std::string path = !app.path.empty() ? app.path : target.state.process.program;
  FSRef ref;
  OSStatus err =
      path.empty()
          ? OSStatus{fnfErr}
          : OSStatus{FSPathMakeRef(reinterpret_cast<const UInt8*>(path.c_str()), &ref, nullptr)};
  HostOpeningInfo info;
  HostOpenDespitePauses();
  if (err == 0) err = HostOpenApplication(&ref, &info);
  if (err != 0 && err != kLSLaunchInProgressErr) {
    return {"failed", err, ExitForStatus(err),
            app.problem.empty() ? "cannot be opened" : app.problem};
  }
  *pid = info.pid;
  if (info.outcome == HostOpening::kEnded) {
    const std::string how = info.waitStatus ? " with " + HostEndText(*info.waitStatus) : "";
    return {"ended", 0, kExitPeerDied, "", {"it ended" + how + "; its log is " + info.log}};
  }
  const auto end = Clock::now() + Milliseconds(ticks * 1000LL / kTicksPerSecond);
  if (!target.port.empty() && !WaitForPort(target.port, end)) {
    return {"noPort", 0, kExitTimeout, "", {"it did not claim " + EscapedBytes(target.port)}};
  }
  return {"restarted"};
}

int Run(const char* verb, const CommandLine& line, bool isRestart) {
  int ticks = kDefaultTicks;
  std::string problem;
  if (!ParseSecondsOption(line, "--timeout", ticks, problem)) {
    return Say(std::string(verb) + ": " + problem), kExitUsage;
  }
  Target target = FindTarget(line);
  if (!target.isKnown) return NotFound(line, target);
  Outcome outcome = Stop(target, ticks, line.Has("--force"));
  const bool isDown = outcome.exit == kExitOk;
  if (isRestart && isDown) {
    if (target.state.application.path.empty() && target.state.process.program.empty()) {
      // One of the package's daemons that never ran here.
      outcome = {"failed", fnfErr, kExitNotFound, "its application is not installed"};
    } else {
      outcome = OpenAgain(target, ticks, &target.state.process.pid);
    }
  }
  SayOutcome(target.word, outcome);
  if (line.Has("--json")) PrintJson(ModelOf(target, outcome));
  return outcome.exit;
}

}  // namespace

static int RunStop(const CommandLine& line) { return Run("stop", line, false); }
static int RunRestart(const CommandLine& line) { return Run("restart", line, true); }

static const OptionSpec kForceOption = {"--force", nullptr,
                                        "then send SIGTERM and, 2 s later, SIGKILL"};

Verb StopVerb() {
  return {"stop",
          "[PORT|PATH|BUNDLE-ID|'SIGN'] [--timeout SECONDS] [--force] [--json]",
          "Ends a program and waits until its process has ended.",
          "Sends the quit event to the program's port. Without an argument, the program\n"
          "is the session daemon. A program that does not run counts as success.\n"
          "\n"
          "Example: vltctl stop com.veltrane.devicemonitor.1.1 --timeout 2 --force\n"
          "\n"
          "JSON: one object with port (the argument), outcome (stopped, killed,\n"
          "notRunning, notFound, failed, stillRunning: not in time), error, pid and\n"
          "application.\n",
          {kTimeoutOption, kForceOption, kJsonOption},
          0,
          1,
          RunStop};
}

Verb RestartVerb() {
  return {"restart",
          "[PORT|PATH|BUNDLE-ID|'SIGN'] [--timeout SECONDS] [--force] [--json]",
          "Ends a program as stop does, and opens it again.",
          "Opens the application that the program belongs to, or else the program, and\n"
          "waits until the port is owned again. A program that does not run is opened.\n"
          "\n"
          "Example: vltctl restart com.veltrane.vltsessiond.1.1\n"
          "\n"
          "JSON: as for stop; the outcome is also restarted, ended (after it was opened)\n"
          "or noPort (not in time). pid is that of the new process.\n",
          {kTimeoutOption, kForceOption, kJsonOption},
          0,
          1,
          RunRestart};
}
