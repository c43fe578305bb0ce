#include "tools/verbs/verb.h"

#include <cstdio>

#include "tools/output.h"

const OptionSpec kJsonOption = {"--json", nullptr, "print JSON, one object on each line"};
const OptionSpec kTimeoutOption = {"--timeout", "SECONDS", "the longest time to wait (10)"};
const OptionSpec kDeviceTimeoutOption = {"--timeout", "SECONDS",
                                         "the time for each of five attempts (10)"};

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> verbs = {
      PortsVerb(),   SendVerb(),    QuitVerb(),   StatusVerb(),       LaunchVerb(),
      StartVerb(),   DevicesVerb(), DeviceVerb(), DeviceStatusVerb(), PsVerb(),
      SessionVerb(), PlistVerb(),   PrefsVerb(),  VersionVerb(),
  };
  return verbs;
}

void Say(const std::string& text) { std::fprintf(stderr, "vltctl: %s\n", text.c_str()); }

void PrintJson(const JsonValue& value) { Print(JsonText(value) + "\n"); }
