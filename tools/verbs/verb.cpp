#include "tools/verbs/verb.h"

#include <cstdio>

#include "tools/output.h"

const OptionSpec kHelpOption = {"--help", nullptr, "describe this command", false, "-h"};
const OptionSpec kJsonOption = {"--json", nullptr, "print JSON, one object on each line"};
const OptionSpec kTimeoutOption = {"--timeout", "SECONDS", "the longest time to wait (10)", false,
                                   "-t"};
const OptionSpec kDeviceTimeoutOption = {"--timeout", "SECONDS",
                                         "the time for each of five attempts (10)", false, "-t"};

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> verbs = {
      PortsVerb(),        SendVerb(),    ServeVerb(),  DescribeVerb(), WaitVerb(),    QuitVerb(),
      AppsVerb(),         StatusVerb(),  StartVerb(),  StopVerb(),     RestartVerb(), LaunchVerb(),
      PsVerb(),           SessionVerb(), DoctorVerb(), SelftestVerb(), DevicesVerb(), DeviceVerb(),
      DeviceStatusVerb(), NotifyVerb(),  PlistVerb(),  PrefsVerb(),    VersionVerb(), HelpVerb(),
  };
  return verbs;
}

void Say(const std::string& text) { std::fprintf(stderr, "vltctl: %s\n", text.c_str()); }

void PrintJson(const JsonValue& value) { Print(JsonText(value) + "\n"); }
