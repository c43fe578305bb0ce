#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include <CoreServices/CoreServices.h>

#include "aeport/port_listener.h"
#include "tools/values/absence.h"
#include "tools/values/port_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultTicks = 10 * 60;
constexpr int kTicksPerSecond = 60;
constexpr auto kShortestPause = std::chrono::milliseconds(1);
constexpr auto kLongestPause = std::chrono::milliseconds(50);

// Looks the name up at growing intervals. A look-up wakes no process. Returns false if the time
// ends first.
bool WaitForName(const std::string& name, bool isGone, Clock::time_point end) {
  auto pause = kShortestPause;
  for (;;) {
    mach_port_t port = MACH_PORT_NULL;
    const bool isOwned = VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), port) == 0;
    if (isOwned != isGone) return true;
    const auto now = Clock::now();
    if (now >= end) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
    std::this_thread::sleep_for(std::min(pause, left));
    pause = std::min(2 * pause, kLongestPause);
  }
}

}  // namespace

static int RunWait(const CommandLine& line) {
  const std::string& name = line.words[0];
  int ticks = kDefaultTicks;
  std::string problem;
  if (!ParseSecondsOption(line, "--timeout", ticks, problem)) {
    return Say("wait: " + problem), kExitUsage;
  }
  if (name.empty() || name.size() > 127) return Say("wait: " + NotAPortName(name)), kExitUsage;
  const bool isGone = line.Has("--gone");
  const auto end = Clock::now() + std::chrono::milliseconds(ticks * 1000LL / kTicksPerSecond);
  if (WaitForName(name, isGone, end)) return TellOutcome(line, name, {isGone ? "gone" : "owned"});
  Outcome late = {isGone ? "stillOwned" : "notOwned", 0, kExitTimeout};
  if (!isGone) late.hints = WhyNobodyOwns(name);
  return TellOutcome(line, name, late);
}

Verb WaitVerb() {
  return {"wait",
          "PORT [--gone] [--timeout SECONDS] [--json]",
          "Waits until a process owns a port name.",
          "Succeeds at once if one does already. Starts nothing.\n"
          "\n"
          "Examples: vltctl wait com.example.camera && vltctl send ...\n"
          "          vltctl wait com.example.camera --gone --timeout 500ms\n"
          "\n"
          "JSON: one object with port, outcome (owned, gone, notOwned, stillOwned: not in\n"
          "time) and error, which is null.\n",
          {{"--gone", nullptr, "wait until no process owns it"}, kTimeoutOption, kJsonOption},
          1,
          1,
          RunWait};
}
