#include <CoreServices/CoreServices.h>

#include <vector>

#include "clients/device_monitor.h"
#include "tools/output.h"
#include "tools/table.h"
#include "tools/values/desc_model.h"
#include "tools/values/parameter_text.h"
#include "tools/values/port_text.h"
#include "tools/verbs/device_requests.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

namespace {

constexpr SInt32 kSpareIDs = 8;  // for devices that are added between the two requests
constexpr int kTries = 3;

OSStatus ListDevices(std::vector<SInt32>& ids) {
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

// The attribute "name" of a device; null without one.
JsonValue NameOf(SInt32 id) {
  DeviceSetting name;
  if (ReadDeviceSetting(id, "name", true, name) != 0) return JsonValue();
  const JsonValue model = SettingModel(name);
  const JsonValue* text = model.Find("text");
  return text != nullptr ? *text : JsonValue();
}

}  // namespace

static int RunDevices(const CommandLine& line) {
  std::vector<SInt32> ids;
  if (!SetDeviceTimeout(line)) return kExitUsage;
  const OSStatus err = ListDevices(ids);
  if (err != 0) return TellDeviceFailure("devices", err);
  if (ids.empty()) Say("the device monitor has no devices");
  std::vector<TableRow> rows;
  for (const SInt32 id : ids) {
    const JsonValue device =
        JsonValue::Object{{"id", JsonValue::Integer(id)}, {"name", NameOf(id)}};
    const JsonValue& name = *device.Find("name");
    if (line.Has("--json")) PrintJson(device);
    rows.push_back({std::to_string(id), name.IsNull() ? "?" : OneLine(name.Plain())});
  }
  if (!line.Has("--json") && !rows.empty()) PrintTable({"ID", "NAME"}, rows);
  return kExitOk;
}

static int RunDeviceStatus(const CommandLine& line) {
  SInt32 mask = 0;
  if (line.Has("--mask") && !ParseWhole(line.options.at("--mask"), mask)) {
    return Say("device-status: --mask: " + Quoted(line.options.at("--mask")) + kNotAWhole),
           kExitUsage;
  }
  if (!SetDeviceTimeout(line)) return kExitUsage;
  AEDescList list = {typeNull, nullptr};
  const OSStatus err = DMGetDeviceStatus(mask, &list);
  const JsonValue model = DescModel(list);
  AEDisposeDesc(&list);
  if (err != 0) return TellDeviceFailure("device-status", err);
  for (const JsonValue& item : *model.Find("items")->AsArray()) {
    if (line.Has("--json")) {
      PrintJson(item);
      continue;
    }
    std::string text;
    const JsonValue* fields = item.Find("fields");
    const JsonValue::Object alone = {{"----", item}};
    for (const std::string& each : ParameterLines(fields != nullptr ? *fields : alone)) {
      text += (text.empty() ? "" : "  ") + each;
    }
    Print(text + "\n");
  }
  return kExitOk;
}

Verb DevicesVerb() {
  return {"devices",
          "[--timeout SECONDS] [--json]",
          "Lists the device monitor's devices.",
          "Prints one line for each device: its id, which is valid until the device\n"
          "monitor ends, and its attribute \"name\".\n"
          "\n"
          "JSON: one object for each device with id and name; name is null if the device\n"
          "has none.\n",
          {kDeviceTimeoutOption, kJsonOption},
          0,
          0,
          RunDevices};
}

Verb DeviceStatusVerb() {
  return {"device-status",
          "[--mask NUMBER] [--timeout SECONDS] [--json]",
          "Prints the device monitor's list of device states.",
          "The device monitor determines what an entry contains.\n"
          "\n"
          "JSON: the descriptor of each entry, as for send.\n",
          {{"--mask", "NUMBER", "decimal or 0x and hexadecimal digits (0)"},
           kDeviceTimeoutOption,
           kJsonOption},
          0,
          0,
          RunDeviceStatus};
}
