#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// The verbs of the tool. Each has a source of its own in this folder: what it does, its options and
// its help text. One table of them makes the help, the suggestions, and whatever else lists them.

struct Verb {
  const char* name;
  const char* synopsis;  // what follows the name
  const char* summary;   // one line
  const char* details;   // paragraphs; may be ""
  std::vector<OptionSpec> options;
  size_t minWords;
  size_t maxWords;
  int (*run)(const CommandLine& line);  // an ExitStatus
  bool needsSession = true;             // refused without a usable session directory
};

// All verbs, in the order of the help.
const std::vector<Verb>& AllVerbs();

// Options that several verbs have.
extern const OptionSpec kJsonOption;
extern const OptionSpec kTimeoutOption;
extern const OptionSpec kDeviceTimeoutOption;

// One line on standard error, under the tool's name.
void Say(const std::string& text);

// One line of data: JSON on standard output.
void PrintJson(const JsonValue& value);

// One for each verb, beside the function that it runs.
Verb PortsVerb();
Verb SendVerb();
Verb QuitVerb();
Verb StatusVerb();
Verb LaunchVerb();
Verb StartVerb();
Verb DevicesVerb();
Verb DeviceVerb();
Verb DeviceStatusVerb();
Verb PsVerb();
Verb SessionVerb();
Verb PlistVerb();
Verb PrefsVerb();
