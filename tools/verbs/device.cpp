#include <CoreServices/CoreServices.h>

#include "clients/device_monitor.h"
#include "tools/output.h"
#include "tools/values/error_names.h"
#include "tools/values/parameter_text.h"
#include "tools/verbs/device_requests.h"
#include "tools/verbs/verb.h"

namespace {

// The parsed arguments.
struct Access {
  SInt32 deviceID = 0;
  std::string key;      // as the user gave it
  std::string keyText;  // in the encoding of events
  bool isAttribute = false;
  bool isSetting = false;
  DeviceSetting setting;
};

bool ParseAccess(const CommandLine& line, Access& access, std::string& problem) {
  const std::vector<std::string>& words = line.words;
  if (!ParseWhole(words[0], access.deviceID))
    return problem = "device id " + Quoted(words[0]) + kNotAWhole, false;
  access.isSetting = words[1] == "set";
  if (!access.isSetting && words[1] != "get") {
    return problem = "unknown action " + Quoted(words[1]) + " (get or set)", false;
  }
  if (words.size() != (access.isSetting ? 5 : 3)) {
    return problem =
               access.isSetting ? "set needs KEY TYPE VALUE" : "get needs KEY and nothing else",
           false;
  }
  access.key = words[2];
  access.isAttribute = line.Has("--attribute");
  // ParseParameter converts a text of the terminal to the encoding of events.
  ParameterValue value;
  if (!ParseParameter("----:text=" + access.key, value, problem)) return false;
  access.keyText = value.bytes;
  if (!access.isSetting) return true;
  value = {};
  if (!ParseParameter("----:" + words[3] + "=" + words[4], value, problem)) return false;
  access.setting = {value.type, value.bytes};
  return true;
}

OSStatus Carry(Access& access) {
  if (!access.isSetting) {
    return ReadDeviceSetting(access.deviceID, access.keyText, access.isAttribute, access.setting);
  }
  const auto set = access.isAttribute ? DMSetDeviceAttribute : DMSetDevicePreference;
  return set(access.deviceID, access.keyText.c_str(), access.setting.type,
             access.setting.bytes.data(), static_cast<SInt32>(access.setting.bytes.size()));
}

}  // namespace

static int RunDevice(const CommandLine& line) {
  Access access;
  std::string problem;
  if (!ParseAccess(line, access, problem)) return Say("device: " + problem), kExitUsage;
  if (!SetDeviceTimeout(line)) return kExitUsage;
  const OSStatus err = Carry(access);
  const JsonValue value = err == 0 ? SettingModel(access.setting) : JsonValue();
  if (line.Has("--json")) {
    JsonValue model = JsonValue::Object{{"device", JsonValue::Integer(access.deviceID)}};
    model.AddBytes("key", access.key);
    model.Add("attribute", JsonValue::Bool(access.isAttribute));
    model.Add("error", ErrorModel(err));
    model.Add("value", value);
    PrintJson(model);
  } else if (err == 0 && !access.isSetting) {
    for (const std::string& text : ParameterLines(JsonValue::Object{{access.key, value}})) {
      Print(text + "\n");
    }
  }
  return err == 0 ? int{kExitOk}
                  : TellDeviceFailure("device", err,
                                      "device " + line.words[0] + ", " +
                                          (access.isAttribute ? "attribute " : "preference ") +
                                          Quoted(access.key));
}

Verb DeviceVerb() {
  return {"device",
          "ID get|set KEY [TYPE VALUE] [--attribute] [--timeout SECONDS] [--json]",
          "Reads or changes a preference or an attribute of a device.",
          "TYPE and VALUE are as for send. get prints KEY:TYPE=VALUE.\n"
          "\n"
          "Examples: vltctl device 1 get name --attribute\n"
          "          vltctl device 1 set gain float 1.5\n"
          "\n"
          "JSON: one object with device, key, attribute (true for an attribute), error\n"
          "(number and name) and value, as for send; value is null if there is none.\n",
          {{"--attribute", nullptr, "an attribute instead of a preference"},
           kDeviceTimeoutOption,
           kJsonOption},
          3,
          5,
          RunDevice};
}
