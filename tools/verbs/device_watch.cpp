#include "tools/verbs/device_watch.h"

#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "aeport/port_listener.h"
#include "clients/device_monitor.h"
#include "clients/device_protocol.h"
#include "platform/host/session/introspect.h"
#include "tools/output.h"
#include "tools/values/desc_model.h"
#include "tools/values/error_names.h"
#include "tools/values/parameter_text.h"
#include "tools/values/port_text.h"
#include "tools/verbs/device_requests.h"
#include "tools/verbs/verb.h"

const OptionSpec kWatchOption = {"--watch", nullptr, "go on and print each change"};
const OptionSpec kCountOption = {"--count", "NUMBER", "with --watch: end after so many lines"};

namespace {

using Clock = std::chrono::steady_clock;

constexpr CFTimeInterval kLookSeconds = 1;  // how often the monitor's port is looked at
// A notification that finds no room for this process is lost, and the monitor may then drop the
// registration. That takes a process that was stopped or could not print.
constexpr auto kMayHaveMissed = std::chrono::seconds(3);
constexpr char kPortPrefix[] = "com.veltrane.vltctl.watch.";

// The number of the port that clients find as the device monitor's, 0 if there is none.
uint64_t MonitorPort() {
  const char* name = nullptr;
  DMGetDeviceMonitorPortName(name);
  if (name == nullptr) return 0;
  for (const HostNameInfo& each : HostListNames()) {
    if (each.name == name) return each.portID;
  }
  return 0;
}

// A watch prints lines through Put. `Begin` is called with the status list after each registration,
// `Notice` for each notification, `Settle` when all that have arrived have been taken, and `Lose`
// when the monitor has gone.
class Watch {
 public:
  Watch(const CommandLine& given, SInt32 bits) : line(given), mask(bits) {}
  virtual ~Watch() = default;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  int Run(const std::string& verb);

 protected:
  virtual OSStatus Begin(const AEDescList& list) = 0;
  virtual void Notice(const AEDesc& event) = 0;
  virtual OSStatus Settle() { return 0; }
  virtual void Lose() {}

  bool IsJson() const { return line.Has("--json"); }
  void Put(const std::string& text);

 private:
  static OSStatus Handle(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                         void* watch);
  OSStatus Register();
  void Follow(const std::string& verb);
  void TellOnce(const std::string& problem);

  const CommandLine& line;
  const SInt32 mask;
  std::string port;
  uint64_t monitor = 0;  // the port that is registered with; 0: none
  std::string told;      // the last problem, so that it is told once
  bool isEnding = false;
  SInt32 linesLeft = 0;  // 0: any number
  int exit = kExitOk;
};

// A line is written at once: whoever reads it may wait for it.
void Watch::Put(const std::string& text) {
  if (isEnding) return;
  Print(text + "\n");
  const int error = TakeOutputError();
  if (error != 0) {
    Say(std::string("standard output: ") + std::strerror(error));
    exit = kExitGeneral;
  }
  isEnding = error != 0 || (linesLeft > 0 && --linesLeft == 0);
}

OSStatus Watch::Handle(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc*,
                       void* pointer) {
  auto& watch = *static_cast<Watch*>(pointer);
  if (eventClass == kCoreEventClass && eventID == kAEQuitApplication) {
    watch.isEnding = true;
  } else if (eventClass == kDMEventClass) {
    watch.Notice(*event);
  } else {
    return errAEEventNotHandled;
  }
  return 0;
}

// The port is looked up first: if another monitor takes over meanwhile, its port is a new one, and
// this registers again.
OSStatus Watch::Register() {
  ProcessSerialNumber own = {0, kNoProcess};
  AEDescList list = {typeNull, nullptr};
  const uint64_t found = MonitorPort();
  OSStatus err = found != 0 ? OSStatus{GetCurrentProcess(&own)} : OSStatus{procNotFound};
  if (err == 0) err = DMRegisterForDeviceStatusNotification(&own, port.c_str(), 0, mask, &list);
  if (err == 0) err = Begin(list);
  AEDisposeDesc(&list);
  monitor = err == 0 ? found : 0;
  return err;
}

void Watch::TellOnce(const std::string& problem) {
  if (problem != told && !problem.empty()) Say(problem);
  told = problem;
}

// Once in a second, or after events.
void Watch::Follow(const std::string& verb) {
  OSStatus err = Settle();
  if (err == 0 && MonitorPort() == monitor && monitor != 0) return TellOnce("");
  if (MonitorPort() == 0) {
    if (std::exchange(monitor, 0) != 0) Lose();
    return TellOnce(verb + ": the device monitor has ended; waiting for another one");
  }
  err = Register();
  TellOnce(err == 0 ? "" : verb + ": " + ErrorSentence(err));
}

int Watch::Run(const std::string& verb) {
  if (line.Has("--count") &&
      (!ParseWhole(line.options.at("--count"), linesLeft) || linesLeft <= 0)) {
    return Say(verb + ": --count: " + Quoted(line.options.at("--count")) +
               " is not a number above 0"),
           kExitUsage;
  }
  port = kPortPrefix + std::to_string(getpid());
  VLTPortAEMachPortListener listener;
  OSStatus err = listener.ListenOnPort(port.c_str(), CFRunLoopGetCurrent(), Handle, this);
  if (err != 0) return Say(verb + ": " + port + ": " + ErrorSentence(err)), ExitForStatus(err);
  err = Register();
  if (err != 0) return TellDeviceFailure(verb, err);
  Clock::time_point before = Clock::now();
  while (!isEnding) {
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLookSeconds, true);
    const Clock::time_point now = Clock::now();
    if (now - before > kMayHaveMissed) monitor = 0;
    if (!isEnding) Follow(verb);
    before = Clock::now();
  }
  return exit;
}

// The devices by id, compared with those that were printed.
class DevicesWatch : public Watch {
 public:
  using Watch::Watch;

 private:
  OSStatus Begin(const AEDescList&) override { return hasChanged = true, Settle(); }
  void Notice(const AEDesc&) override { hasChanged = true; }
  OSStatus Settle() override;
  void Lose() override;
  void Tell(const char* change, SInt32 id, const JsonValue& name);

  bool hasChanged = true;
  bool isFirst = true;
  std::map<SInt32, JsonValue> shown;
};

void DevicesWatch::Tell(const char* change, SInt32 id, const JsonValue& name) {
  if (IsJson()) {
    const JsonValue model =
        JsonValue::Object{{"change", change}, {"id", JsonValue::Integer(id)}, {"name", name}};
    return Put(JsonText(model));
  }
  std::string text = change;
  text.resize(sizeof "present" + 1, ' ');
  Put(text + std::to_string(id) + "  " + (name.IsNull() ? "?" : OneLine(name.Plain())));
}

OSStatus DevicesWatch::Settle() {
  if (!hasChanged) return 0;
  std::vector<NamedDevice> devices;
  const OSStatus err = ListDevices(devices);
  if (err != 0) return err;
  std::map<SInt32, JsonValue> present;
  for (const NamedDevice& device : devices) present[device.id] = device.name;
  hasChanged = false;
  for (const auto& [id, name] : shown) {
    if (!present.contains(id)) Tell("removed", id, name);
  }
  for (const auto& [id, name] : present) {
    const auto before = shown.find(id);
    if (before == shown.end()) {
      Tell(isFirst ? "present" : "added", id, name);
    } else if (JsonText(before->second) != JsonText(name)) {
      Tell("renamed", id, name);
    }
  }
  isFirst = false;
  shown = std::move(present);
  return 0;
}

void DevicesWatch::Lose() {
  for (const auto& [id, name] : std::exchange(shown, {})) Tell("removed", id, name);
  hasChanged = true;
}

class StatusWatch : public Watch {
 public:
  using Watch::Watch;

 private:
  OSStatus Begin(const AEDescList& list) override;
  void Notice(const AEDesc& event) override;
  void PutEntry(const JsonValue& entry) { Put(IsJson() ? JsonText(entry) : StatusText(entry)); }
};

OSStatus StatusWatch::Begin(const AEDescList& list) {
  const JsonValue model = DescModel(list);
  const JsonValue* const items = model.Find("items");
  if (items == nullptr) return errAECoercionFail;
  for (const JsonValue& entry : *items->AsArray()) PutEntry(entry);
  return 0;
}

// The notification's parameters are an entry of the list, but for the registration's own number.
void StatusWatch::Notice(const AEDesc& event) {
  const JsonValue model = DescModel(event);
  JsonValue::Object fields;
  if (const JsonValue* const parameters = model.Find("parameters")) {
    for (const auto& [key, value] : *parameters->AsObject()) {
      if (key != CodeText(keyDMStatusParam)) fields.push_back({key, value});
    }
  }
  PutEntry(JsonValue::Object{{"type", "reco"}, {"fields", fields}});
}

}  // namespace

int WatchDevices(const CommandLine& line) {
  return DevicesWatch(line, static_cast<SInt32>(~kDMStatusOnce)).Run("devices");
}

int WatchDeviceStatus(const CommandLine& line, SInt32 mask) {
  return StatusWatch(line, mask).Run("device-status");
}
