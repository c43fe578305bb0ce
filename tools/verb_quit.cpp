#include <chrono>
#include <thread>

#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "tools/error_names.h"
#include "tools/verbs.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSessionDaemon[] = "com.veltrane.vltsessiond.1.1";
constexpr int kDefaultTicks = 10 * 60;
constexpr int kTicksPerSecond = 60;

// Sends the quit event. An owner that ends before it has answered has done what it was asked.
OSStatus SendQuit(VLTPortDestinationAddress& address, int timeoutTicks) {
  VLTPortAppleEvent event(kCoreEventClass, kAEQuitApplication, kAEWaitReply, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  OSStatus err = event.createEvent();
  if (err == 0) err = event.sendEvent(0, timeoutTicks, kAENormalPriority);
  event.finalizeEvent();
  return err == connectionInvalid ? 0 : err;
}

// Another port under the name is another process: the one that was asked is gone.
bool IsGone(const char* name, mach_port_t asked) {
  mach_port_t port = MACH_PORT_NULL;
  return VLTPortAEMachPortListener::CheckPortRegistered(name, port) != 0 || port != asked;
}

// False when the time ends first.
bool WaitUntilGone(const char* name, mach_port_t asked, Clock::time_point end) {
  while (!IsGone(name, asked)) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

struct Outcome {
  const char* name;
  OSStatus err;  // of a failure, else 0
  ExitStatus exit;
};

// Result  the outcome; of kExitUsage when the name can be no port's.
Outcome Quit(const std::string& name, int timeoutTicks) {
  const auto end =
      Clock::now() + std::chrono::milliseconds(timeoutTicks * 1000LL / kTicksPerSecond);
  mach_port_t asked = MACH_PORT_NULL;
  OSStatus err = VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), asked);
  if (err == paramErr) return {"failed", err, kExitUsage};
  VLTPortDestinationAddress address(name.c_str());
  if (err == 0) err = address.initialize();
  if (err == 0) err = SendQuit(address, timeoutTicks);
  if (err == BOOTSTRAP_UNKNOWN_SERVICE) return {"notRunning", 0, kExitOk};
  if (err != 0) {
    const ExitStatus exit = ExitForStatus(err);
    return {"failed", err, exit == kExitGeneral ? kExitRefused : exit};
  }
  if (!WaitUntilGone(name.c_str(), asked, end)) return {"stillRunning", 0, kExitTimeout};
  return {"quit", 0, kExitOk};
}

JsonValue OutcomeModel(const std::string& port, const Outcome& outcome) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("port", port);
  model.Add("outcome", outcome.name);
  model.Add("error", outcome.err != 0 ? ErrorModel(outcome.err) : JsonValue());
  return model;
}

// The outcome for people; "" for the one that was asked for.
std::string OutcomeText(const JsonValue& model) {
  const std::string port = model.Find("port")->Plain();
  const std::string outcome = model.Find("outcome")->Plain();
  if (outcome == "notRunning") return port + " is not running";
  if (outcome == "stillRunning") return port + " has not ended in time";
  if (outcome != "failed") return "";
  const JsonValue& error = *model.Find("error");
  return port + ": error " + ErrorText(static_cast<OSStatus>(error.Find("number")->AsDouble()));
}

}  // namespace

int RunQuit(const CommandLine& line) {
  const std::string name = line.words.empty() ? kSessionDaemon : line.words[0];
  int timeoutTicks = kDefaultTicks;
  if (line.Has("--timeout") && !ParseSeconds(line.options.at("--timeout"), timeoutTicks)) {
    return Say("quit: no seconds: " + line.options.at("--timeout")), kExitUsage;
  }
  const Outcome outcome = Quit(name, timeoutTicks);
  if (outcome.exit == kExitUsage) return Say("quit: a port name has 1 to 127 bytes"), kExitUsage;
  const JsonValue model = OutcomeModel(name, outcome);
  const std::string text = OutcomeText(model);
  if (!text.empty()) Say(text);
  if (line.Has("--json")) PrintJson(model);
  return outcome.exit;
}
