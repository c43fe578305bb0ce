#include <CoreServices/CoreServices.h>

#include <vector>

#include "clients/device_monitor.h"
#include "clients/device_protocol.h"
#include "tools/output.h"
#include "tools/table.h"
#include "tools/values/desc_model.h"
#include "tools/values/port_text.h"
#include "tools/verbs/device_requests.h"
#include "tools/verbs/device_watch.h"
#include "tools/verbs/outcome.h"
#include "tools/verbs/verb.h"

static int RunDevices(const CommandLine& line) {
  if (!SetDeviceTimeout(line)) return kExitUsage;
  if (line.Has("--watch")) return WatchDevices(line);
  std::vector<NamedDevice> devices;
  const OSStatus err = ListDevices(devices);
  if (err != 0) return TellDeviceFailure("devices", err);
  if (devices.empty()) Say("the device monitor has no devices");
  std::vector<TableRow> rows;
  for (const auto& [id, name] : devices) {
    if (line.Has("--json")) {
      PrintJson(JsonValue::Object{{"id", JsonValue::Integer(id)}, {"name", name}});
    }
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
  if (line.Has("--watch")) {
    const auto all = static_cast<SInt32>(~kDMStatusOnce);
    return WatchDeviceStatus(line, line.Has("--mask") ? mask : all);
  }
  AEDescList list = {typeNull, nullptr};
  const OSStatus err = DMGetDeviceStatus(mask, &list);
  const JsonValue model = DescModel(list);
  AEDisposeDesc(&list);
  if (err != 0) return TellDeviceFailure("device-status", err);
  for (const JsonValue& item : *model.Find("items")->AsArray()) {
    Print((line.Has("--json") ? JsonText(item) : StatusText(item)) + "\n");
  }
  return kExitOk;
}

Verb DevicesVerb() {
  return {"devices",
          "[--watch] [--count NUMBER] [--timeout SECONDS] [--json]",
          "Lists the device monitor's devices.",
          "Prints one line for each device: its id, which is valid until the device\n"
          "monitor ends, and its attribute \"name\".\n"
          "\n"
          "--watch goes on: each line then begins with present (at the start), added,\n"
          "removed or renamed. If the monitor ends, its devices are removed, and the\n"
          "command waits for another monitor. It ends with the quit event, after --count\n"
          "lines, or with a signal.\n"
          "\n"
          "Examples: vltctl devices\n"
          "          vltctl devices --watch --json\n"
          "\n"
          "JSON: one object for each device with id and name; name is null if the device\n"
          "has none. With --watch also change, the word in front.\n",
          {kWatchOption, kCountOption, kDeviceTimeoutOption, kJsonOption},
          0,
          0,
          RunDevices};
}

Verb DeviceStatusVerb() {
  return {"device-status",
          "[--mask NUMBER] [--watch] [--count NUMBER] [--timeout SECONDS] [--json]",
          "Prints the device monitor's list of device states.",
          "The device monitor determines what an entry contains. --watch goes on and\n"
          "prints each notification of a change that the mask selects, in the same form.\n"
          "It ends as devices --watch does.\n"
          "\n"
          "Examples: vltctl device-status\n"
          "          vltctl device-status --watch --mask 0x10\n"
          "\n"
          "JSON: the descriptor of each entry, as for send.\n",
          {{"--mask", "NUMBER", "decimal or 0x and hexadecimal digits (0; --watch: all)"},
           kWatchOption,
           kCountOption,
           kDeviceTimeoutOption,
           kJsonOption},
          0,
          0,
          RunDeviceStatus};
}
