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

}  // namespace

int RunQuit(const CommandLine& line) {
  const std::string name = line.words.empty() ? kSessionDaemon : line.words[0];
  int timeoutTicks = kDefaultTicks;
  if (line.Has("--timeout") && !ParseSeconds(line.options.at("--timeout"), timeoutTicks)) {
    return Say("quit: no seconds: " + line.options.at("--timeout")), kExitUsage;
  }
  const auto end =
      Clock::now() + std::chrono::milliseconds(timeoutTicks * 1000LL / kTicksPerSecond);

  mach_port_t asked = MACH_PORT_NULL;
  OSStatus err = VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), asked);
  if (err == paramErr) return Say("quit: a port name has 1 to 127 bytes"), kExitUsage;
  VLTPortDestinationAddress address(name.c_str());
  if (err == 0) err = address.initialize();
  if (err == 0) err = SendQuit(address, timeoutTicks);
  if (err == BOOTSTRAP_UNKNOWN_SERVICE) return Say(name + " is not running"), kExitOk;
  if (err != 0) {
    Say(name + ": error " + ErrorText(err));
    const ExitStatus exit = ExitForStatus(err);
    return exit == kExitGeneral ? kExitRefused : exit;
  }
  while (!IsGone(name.c_str(), asked)) {
    if (Clock::now() >= end) return Say(name + " has not ended in time"), kExitTimeout;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return kExitOk;
}
