#include <systemd/sd-bus.h>

#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <CoreServices/CoreServices.h>

#include "aeport/event.h"
#include "bench/ipc_dbus_daemon.h"
#include "bench/ipc_process.h"
#include "bench/ipc_report.h"
#include "bench/session_folder.h"
#include "launch/launch.h"
#include "platform/host/applications/open_application.h"
#include "platform/host/base/clock.h"

// From asking a service that is not running to its first reply: the session daemon, found by its
// bundle identifier and started by the launcher, beside a service that a message bus starts when
// it is called. The rows take turns.

namespace {

constexpr char kUsage[] =
    "usage: launch_bench [--rounds N]\n"
    "Prints row,metric,value lines, then a table of medians with ratios to the first row (41 "
    "rounds).\n";

constexpr char kName[] = "com.veltrane.LaunchBench";
constexpr char kPath[] = "/bench";
constexpr uint64_t kCallUs = 10'000'000;
constexpr int kEndMs = 10'000;

bool WaitUntil(const std::function<bool()>& condition) {
  const int64_t end = HostNow() + kEndMs * kHostMillisecond;
  while (!condition()) {
    if (HostNow() >= end) return false;
    IpcPause(1);
  }
  return true;
}

// The session daemon handles only the quit event. Its error reply to others counts as a reply.
OSStatus Ask(UInt32 eventClass, UInt32 eventID) {
  VLTPortDestinationAddress address(gSessionMonitorLaunchSpec.portName);
  VLTPortAppleEvent event(eventClass, eventID, kAEWaitReply, &address, kAutoGenerateReturnID,
                          kAnyTransactionID);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = event.sendEvent(0, 600, kAENormalPriority);
  event.finalizeEvent();
  return err;
}

bool OursIsGone() { return VLTLaunch::findPSN(gSessionMonitorLaunchSpec.signature) != 0; }

bool MeasureOurs(double* microseconds) {
  const int64_t start = HostNow();
  VLTLaunch launch(gSessionMonitorLaunchSpec);
  const OSStatus found = launch.findAndLaunch();
  const OSStatus answer = Ask(FourCC('t', 'e', 's', 't'), FourCC('p', 'i', 'n', 'g'));
  *microseconds = static_cast<double>(HostNow() - start) / 1000;
  const bool isFine = found == 0 && answer == errAEEventNotHandled;
  return Ask(kCoreEventClass, kAEQuitApplication) == 0 && WaitUntil(OursIsGone) && isFine;
}

// Its end, not its disappearance: the bus leaves what it has started to the machine's first
// process, which may take seconds to collect it.
bool HasEnded(int process) { return process >= 0 && IpcWaitReadable(process, kEndMs); }

// The client has its connection to the bus already, as a program that uses one has.
bool MeasureBus(const std::string& address, double* microseconds) {
  sd_bus* bus = nullptr;
  const char* own = nullptr;
  bool isFine = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                sd_bus_get_unique_name(bus, &own) >= 0;
  sd_bus_message* reply = nullptr;
  const int64_t start = HostNow();
  if (isFine) {
    isFine = sd_bus_call_method(bus, kName, kPath, kName, "Ping", nullptr, &reply, "") >= 0;
  }
  *microseconds = static_cast<double>(HostNow() - start) / 1000;
  int32_t pid = 0;
  if (isFine) isFine = sd_bus_message_read(reply, "i", &pid) > 0;
  sd_bus_message_unref(reply);
  const int process = isFine ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
  if (isFine)
    isFine = sd_bus_call_method(bus, kName, kPath, kName, "Stop", nullptr, nullptr, "") >= 0;
  if (isFine) isFine = HasEnded(process);
  if (process >= 0) close(process);
  sd_bus_flush_close_unref(bus);
  return isFine;
}

int AnswerCall(sd_bus_message* call, void* stopped, sd_bus_error*) {
  const char* member = sd_bus_message_get_member(call);
  if (strcmp(member, "Stop") == 0) *static_cast<bool*>(stopped) = true;
  return sd_bus_reply_method_return(call, "i", static_cast<int32_t>(getpid()));
}

// The smallest service that the bus can start.
int RunService() {
  sd_bus* bus = nullptr;
  bool stopped = false;
  int err = sd_bus_open_user(&bus);
  if (err >= 0) err = sd_bus_add_object(bus, nullptr, kPath, AnswerCall, &stopped);
  if (err >= 0) err = sd_bus_request_name(bus, kName, 0);
  while (err >= 0 && !stopped) {
    err = sd_bus_process(bus, nullptr);
    if (err == 0) err = sd_bus_wait(bus, kCallUs);
  }
  sd_bus_flush_close_unref(bus);
  return err >= 0 ? 0 : 1;
}

void DescribeService(const std::string& folder) {
  std::ofstream(folder + "/" + kName + ".service")
      << "[D-BUS Service]\nName=" << kName << "\nExec=" << VLT_BENCH_SERVICE << " --service\n";
}

// Each measurement in a process that has done nothing before.
bool Measure(const char* row, const std::function<bool(double*)>& measure, IpcReport* report) {
  IpcProcess process;
  std::vector<double> told;
  const bool isFine = process.Fork({},
                                   [&](IpcChannel& parent) {
                                     double microseconds = 0;
                                     return measure(&microseconds) && parent.Tell({microseconds});
                                   }) &&
                      process.Channel().Hear(&told) && told.size() == 1;
  if (!isFine) return std::fprintf(stderr, "%s failed\n", row), false;
  report->Add(row, "launch-to-reply-us", told[0]);
  return process.Join();
}

int RunRounds(int rounds) {
  const BenchSessionFolder session;
  setenv("XDG_DATA_HOME", session.Path().c_str(), 1);
  setenv("XDG_DATA_DIRS", VLT_BENCH_DATA, 1);
  DescribeService(session.Path());
  IpcDBusDaemon bus(session.Path());
  const bool hasBus = bus.Start();
  if (!hasBus) std::fprintf(stderr, "no dbus-daemon: its row is left out\n");
  IpcReport report;
  bool isFine = true;
  for (int i = 0; i < rounds && isFine && !IpcIsInterrupted(); i++) {
    if (hasBus) {
      isFine = Measure(
          "dbus-daemon", [&](double* time) { return MeasureBus(bus.Address(), time); }, &report);
    }
    isFine = isFine && Measure("ours", MeasureOurs, &report);
  }
  report.PrintTable();
  return isFine && session.LogIsEmpty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  HostOpenDespitePauses();  // the daemon is started and ended many times a second
  if (argc == 2 && strcmp(argv[1], "--service") == 0) return RunService();
  int rounds = 41;
  if (argc == 3 && strcmp(argv[1], "--rounds") == 0) rounds = atoi(argv[2]);
  if ((argc != 1 && argc != 3) || rounds <= 0) return std::fputs(kUsage, stderr), 2;
  IpcCatchSignals();
  return RunRounds(rounds);
}
