#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <cstdio>
#include <cstring>

#include "aeport/port_listener.h"
#include "bench/ipc_meeting.h"
#include "bench/ipc_report.h"
#include "bench/session_folder.h"
#include "clients/device_monitor.h"
#include "clients/session_monitor.h"
#include "daemon/event_service.h"
#include "examples/device_monitor/device_service.h"
#include "launch/launch_spec.h"

// Measures a request by a client of a daemon, which looks the daemon up twice on the way,
// beside the bare socket and a plain event to a port. The rows take turns within each round.

namespace {

constexpr char kKey[] = "key";

// The reference device monitor, and the session daemon's service for the look-up.
class MonitorClient : public IpcClient {
 public:
  bool Connect() override { return true; }

  // The value is the one stored in the first run; the reply is the value.
  bool Request(const Bytes& payload, Bytes* answer) override {
    const auto size = static_cast<SInt32>(payload.size());
    if (!isStored) {
      isStored = DMSetDevicePreference(1, kKey, typeChar, payload.data(), size) == 0;
    }
    SInt32 actualSize = 0;
    OSType actualType = 0;
    return isStored &&
           DMGetDevicePreference(1, kKey, typeChar, answer->data(), size, &actualSize,
                                 &actualType) == 0 &&
           actualSize == size && actualType == typeChar;
  }

  bool LookUp() override { return SMCheckDaemonRunning() == 0; }
  bool Post(const Bytes&) override { return false; }
  bool Counted(uint64_t*) override { return false; }
  void StopServer() override {
    DMQuitDaemon();
    SMQuitDaemon();
  }

 private:
  bool isStored = false;
};

class MonitorTransport : public IpcTransport {
 public:
  const char* Name() const override { return "clients"; }

  bool Serve(const IpcWork&, const std::string&, const std::function<void()>& ready) override {
    Device device;
    device.bus = "bench";
    DeviceService service;
    service.Update({device});
    VLTPortAEMachPortListener listener;
    if (installAEHandlers() != 0 ||
        listener.ListenOnPort(gDeviceMonitorLaunchSpec.portName, CFRunLoopGetCurrent(),
                              DeviceService::Dispatch, &service) != 0) {
      return false;
    }
    ready();
    RunApplicationEventLoop();
    removeAEHandlers();
    return true;
  }

  std::unique_ptr<IpcClient> NewClient(const IpcWork&, const std::string&) override {
    return std::make_unique<MonitorClient>();
  }
};

struct Figure {
  const char* name;
  IpcWork work;
};

constexpr Figure kFigures[] = {
    {"get-preference-64", {IpcKind::kEcho, 64}},
    {"check-running", {IpcKind::kLookUp, 0}},
};

bool Take(IpcTransport& transport, const Figure& figure, const IpcPlacement& placement,
          const IpcBudget& budget, IpcReport& report) {
  IpcMeeting meeting(transport, figure.work, placement);
  double nanoseconds = 0;
  const bool done = meeting.Start() && meeting.Measure(budget, &nanoseconds) && meeting.End();
  const std::string metric = std::string(figure.name) + "-" + placement.name;
  if (done) {
    report.Add(transport.Name(), metric + "-us", nanoseconds / 1e3);
  } else {
    std::fprintf(stderr, "FAILED: %s,%s\n", transport.Name(), metric.c_str());
  }
  return done;
}

}  // namespace

int main(int argc, char** argv) {
  const bool isQuick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 2 || (argc == 2 && !isQuick)) {
    std::fputs("usage: clients_bench [--quick]\n", stderr);
    return 2;
  }
  IpcCatchSignals();
  const BenchSessionFolder session;
  if (session.Path().empty()) return std::perror("temporary folder"), 1;

  const auto raw = NewRawTransport(session.Path());
  const auto ours = NewOursTransport();
  MonitorTransport clients;
  IpcReport report;
  bool done = true;
  for (int round = 0; round < (isQuick ? 2 : 15) && !IpcIsInterrupted(); ++round) {
    for (const IpcPlacement& placement : IpcPlacements()) {
      if (placement.IsFree()) continue;
      for (const Figure& figure : kFigures) {
        for (IpcTransport* transport :
             {raw.get(), ours.get(), static_cast<IpcTransport*>(&clients)}) {
          const IpcBudget budget = isQuick ? IpcBudget{5, 20} : IpcBudget{};
          done = Take(*transport, figure, placement, budget, report) && done;
        }
      }
    }
  }
  report.PrintTable();
  return session.LogIsEmpty() && done && !IpcIsInterrupted() ? 0 : 1;
}
