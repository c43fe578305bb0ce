#include "tools/verbs/device_requests.h"

#include <charconv>

#include "clients/device_monitor.h"
#include "launch/launch_spec.h"
#include "tools/applications/launch_plan.h"
#include "tools/values/desc_model.h"
#include "tools/values/error_names.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

constexpr int kDefaultTicks = 10 * 60;
constexpr size_t kFirstRoom = 4096;
constexpr int kTries = 3;  // the value may grow between two attempts

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
