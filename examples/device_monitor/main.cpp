#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "aeport/port_listener.h"
#include "aeport/port_name.h"
#include "examples/device_monitor/device_service.h"
#include "examples/device_monitor/hotplug.h"
#include "launch/launch_spec.h"
#include "util/user_session.h"

// A device monitor in about a thousand lines, as an example of a server that uses this library.
// The tests of the clients use it as their server.

namespace {

constexpr char kUsage[] =
    "usage: device_monitor [--devices FILE] [--video FOLDER] [--session]\n"
    "  --devices  a property list with an array \"devices\"; else the preferences' one\n"
    "  --video    where the kernel lists video devices (/sys/class/video4linux); \"\": nowhere\n"
    "  --session  serve this login session only, under its own port name\n";

struct Options {
  DeviceSources sources = {"", "/sys/class/video4linux", "/dev"};
  bool isForSession = false;
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    const bool hasValue = i + 1 < argc;
    if (name == "--session") {
      options.isForSession = true;
    } else if (name == "--devices" && hasValue) {
      options.sources.listFile = argv[++i];
    } else if (name == "--video" && hasValue) {
      options.sources.videoFolder = argv[++i];
      options.sources.nodeFolder = "";
    } else {
      return false;
    }
  }
  return true;
}

// One monitor serves all login sessions, or each login session has its own. Clients look for the
// former first.
OSStatus MakePortName(bool isForSession, char (&name)[kVLTPortNameSize]) {
  char suffix[16] = "";
  UInt32 sessionID = 0;
  OSStatus err = 0;
  if (isForSession) {
    err = GetUserSessionID(sessionID);
    std::snprintf(suffix, sizeof suffix, "%" PRIx32, sessionID);
  }
  if (err != 0) return err;
  return VLTAEMakePortName(name, sizeof name, gDeviceMonitorLaunchSpec.portName, false, suffix, -1);
}

int Fail(const char* what, OSStatus err) {
  std::fprintf(stderr, "device_monitor: %s (%d)\n", what, static_cast<int>(err));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return std::fputs(kUsage, stderr), 2;

  std::vector<Device> devices;
  OSStatus err = FindDevices(options.sources, devices);
  if (err != 0) return Fail("cannot read the list of devices", err);
  DeviceService service;
  service.Update(std::move(devices));
  Hotplug hotplug(options.sources, service);
  if (!hotplug.Start()) {
    std::fputs("device_monitor: devices that come and go will not be noticed\n", stderr);
  }

  char name[kVLTPortNameSize];
  VLTPortAEMachPortListener listener;
  err = MakePortName(options.isForSession, name);
  if (err == 0) {
    err = listener.ListenOnPort(name, CFRunLoopGetCurrent(), DeviceService::Dispatch, &service);
  }
  if (err != 0) return Fail("cannot claim the port; is another monitor running?", err);
  RunApplicationEventLoop();
  return 0;
}
