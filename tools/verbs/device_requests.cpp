#include "tools/verbs/device_requests.h"

#include <charconv>

#include "clients/device_monitor.h"
#include "launch/launch_spec.h"
#include "tools/applications/launch_plan.h"
#include "tools/values/desc_model.h"
#include "tools/values/error_names.h"
#include "tools/values/parameter_text.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

constexpr int kDefaultTicks = 10 * 60;
constexpr size_t kFirstRoom = 4096;
constexpr int kTries = 3;        // a value or the list may grow between two attempts
constexpr SInt32 kSpareIDs = 8;  // for devices that are added between two requests

OSStatus ListIDs(std::vector<SInt32>& ids) {
  OSStatus err = 0;
  for (int i = 0; i < kTries; ++i) {
    SInt32 count = 0;
    err = DMGetDeviceIDs(nullptr, 0, &count);
    if (err != 0) return err;
    ids.resize(static_cast<size_t>(count + kSpareIDs));
    err = DMGetDeviceIDs(ids.data(), count + kSpareIDs, &count);
    if (err == 0) ids.resize(static_cast<size_t>(count));
    if (err != paramErr) return err;
  }
  return err;
}

// Returns the error of a monitor that cannot be asked. What it replies means that there is no name;
// `isCertain` becomes false unless it says that the device has none.
OSStatus ReadName(SInt32 id, JsonValue& name, bool& isCertain) {
  DeviceSetting setting;
  const OSStatus err = ReadDeviceSetting(id, "name", true, setting);
  if (err != 0 && ExitForReply(err) != kExitRefused) return err;
  if (err == 0) {
    const JsonValue model = SettingModel(setting);
    const JsonValue* const text = model.Find("text");
    if (text != nullptr) name = *text;
  }
  isCertain = isCertain && (err == 0 || err == errAEDescNotFound);
  return 0;
}

}  // namespace

OSStatus ReadDeviceSetting(SInt32 deviceID, const std::string& key, bool isAttribute,
                           DeviceSetting& setting) {
  size_t room = kFirstRoom;
  for (int i = 0; i < kTries; ++i) {
    setting.bytes.resize(room);
    SInt32 size = 0;
    const auto get = [&](auto request) {
      return request(deviceID, key.c_str(), typeWildCard, setting.bytes.data(),
                     static_cast<SInt32>(room), &size, &setting.type);
    };
    using Request = OSStatus (*)(SInt32, const char*, OSType, void*, SInt32, SInt32*, OSType*);
    const OSStatus err =
        get(isAttribute ? Request{DMGetDeviceAttribute} : Request{DMGetDevicePreference});
    if (err != 0) return err;
    const auto whole = static_cast<size_t>(size);
    if (whole <= room) return setting.bytes.resize(whole), 0;
    room = whole;
  }
  return errAEBufferTooSmall;
}

JsonValue SettingModel(const DeviceSetting& setting) {
  AEDesc desc = {typeNull, nullptr};
  AECreateDesc(setting.type, setting.bytes.data(), static_cast<Size>(setting.bytes.size()), &desc);
  JsonValue model = DescModel(desc);
  AEDisposeDesc(&desc);
  return model;
}

OSStatus ListDevices(std::vector<NamedDevice>& devices) {
  OSStatus err = 0;
  for (int i = 0; i < kTries; ++i) {
    std::vector<SInt32> ids, after;
    bool isCertain = true;
    err = ListIDs(ids);
    devices.clear();
    for (const SInt32 id : ids) {
      devices.push_back({id, JsonValue()});
      if (err == 0) err = ReadName(id, devices.back().name, isCertain);
    }
    if (err != 0 || isCertain) return err;
    // A device without a name may have gone since the list was made.
    err = ListIDs(after);
    if (err != 0 || ids == after) return err;
  }
  return err;
}

std::string StatusText(const JsonValue& entry) {
  std::string text;
  const JsonValue* fields = entry.Find("fields");
  const JsonValue::Object alone = {{"----", entry}};
  for (const std::string& each : ParameterLines(fields != nullptr ? *fields : alone)) {
    text += (text.empty() ? "" : "  ") + each;
  }
  return text;
}

bool SetDeviceTimeout(const CommandLine& line) {
  int ticks = kDefaultTicks;
  std::string problem;
  if (!ParseSecondsOption(line, "--timeout", ticks, problem)) return Say(problem), false;
  DMSetSendEventTimeout(static_cast<UInt32>(ticks));
  return true;
}

int TellDeviceFailure(const std::string& verb, OSStatus err, const std::string& about) {
  const std::string object = about.empty() ? "" : about + ": ";
  if (err == procNotFound) {
    Say(verb + ": the device monitor (" + gDeviceMonitorLaunchSpec.portName + ") is not running " +
        ErrorNumber(err));
    const LaunchPlan plan = PlanLaunch(gDeviceMonitorLaunchSpec);
    if (!plan.problem.empty()) Say(plan.problem);
    Say(plan.search.Found()
            ? "start it with vltctl launch " + std::string(gDeviceMonitorLaunchSpec.bundleID)
            : "it is not installed: no application folder has " +
                  std::string(gDeviceMonitorLaunchSpec.bundleID));
  } else if (err == paramErr && !about.empty()) {
    Say(verb + ": " + object + "no such device, or the monitor does not accept the value " +
        ErrorNumber(err));
    Say("vltctl devices lists the ids of the devices");
  } else if (err == errAEDescNotFound && !about.empty()) {
    Say(verb + ": " + object + "the device has no such value " + ErrorNumber(err));
  } else {
    Say(verb + ": " + object + RequestErrorSentence(err));
  }
  return ExitForReply(err);
}

bool ParseWhole(const std::string& text, SInt32& number) {
  const char* const end = text.data() + text.size();
  UInt32 bits = 0;
  const bool isHex = text.starts_with("0x");
  const auto [stop, error] = isHex ? std::from_chars(text.data() + 2, end, bits, 16)
                                   : std::from_chars(text.data(), end, number);
  if (isHex) number = static_cast<SInt32>(bits);
  return error == std::errc() && stop == end;
}
