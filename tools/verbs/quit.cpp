#include <chrono>
#include <thread>

#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "launch/launch_spec.h"
#include "tools/values/port_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultTicks = 10 * 60;
constexpr int kTicksPerSecond = 60;

// Sends the quit event. Requests no reply from the session daemon, like its clients (SMQuitDaemon
// has a time-out of its own). Waits for the reply of other servers, because they may refuse. A
// server that ends before it replies has done what was requested.
OSStatus SendQuit(const std::string& name, int timeoutTicks) {
  const bool isOurs = name == gSessionMonitorLaunchSpec.portName;
  VLTPortDestinationAddress address(name.c_str());
  VLTPortAppleEvent event(kCoreEventClass, kAEQuitApplication, isOurs ? kAENoReply : kAEWaitReply,
                          &address, kAutoGenerateReturnID, kAnyTransactionID);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = event.sendEvent(0, timeoutTicks, kAENormalPriority);
  event.finalizeEvent();
  return err == connectionInvalid ? 0 : err;
}

// Another port under the name means that the server that got the event has given the name up.
bool IsGone(const char* name, mach_port_t asked) {
  mach_port_t port = MACH_PORT_NULL;
  return VLTPortAEMachPortListener::CheckPortRegistered(name, port) != 0 || port != asked;
}

// Returns false if the time ends first.
bool WaitUntilGone(const char* name, mach_port_t asked, Clock::time_point end) {
  while (!IsGone(name, asked)) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Returns the outcome, with kExitUsage if the name cannot be a port name.
Outcome Quit(const std::string& name, int timeoutTicks) {
  const auto end =
      Clock::now() + std::chrono::milliseconds(timeoutTicks * 1000LL / kTicksPerSecond);
  mach_port_t asked = MACH_PORT_NULL;
  OSStatus err = VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), asked);
  if (err == paramErr) return {"failed", err, kExitUsage};
  if (err == 0) err = SendQuit(name, timeoutTicks);
  if (err == BOOTSTRAP_UNKNOWN_SERVICE) return {"notRunning"};
  if (err != 0) return {"failed", err, ExitForReply(err)};
  if (!WaitUntilGone(name.c_str(), asked, end)) return {"stillRunning", 0, kExitTimeout};
  return {"quit"};
}

}  // namespace

static int RunQuit(const CommandLine& line) {
  const std::string name = line.words.empty() ? gSessionMonitorLaunchSpec.portName : line.words[0];
  int timeoutTicks = kDefaultTicks;
  std::string problem;
  if (!ParseSecondsOption(line, "--timeout", timeoutTicks, problem)) {
    return Say("quit: " + problem), kExitUsage;
  }
  const Outcome outcome = Quit(name, timeoutTicks);
  if (outcome.exit == kExitUsage) return Say("quit: " + NotAPortName(name)), kExitUsage;
  return TellOutcome(line, name, outcome);
}

Verb QuitVerb() {
  return {"quit",
          "[PORT] [--timeout SECONDS] [--json]",
          "Sends the quit event and waits until the port is gone.",
          "Without PORT, the event goes to the session daemon. If no process owns the\n"
          "port, that counts as success.\n"
          "\n"
          "Examples: vltctl quit\n"
          "          vltctl quit com.veltrane.vltdeviced.1.1 --timeout 3\n"
          "\n"
          "JSON: one object with port, outcome and error. The outcome is quit,\n"
          "notRunning, failed or stillRunning (the server replied but did not end in\n"
          "time). error is null unless the outcome is failed.\n",
          {kTimeoutOption, kJsonOption},
          0,
          1,
          RunQuit};
}
