#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// The verbs of the tool. Each has a source of its own in this folder, with its code, options and
// help text. Help and suggestions are made from one table of all verbs. One thread.

struct Verb {
  const char* name;
  const char* synopsis;  // the arguments after the name
  const char* summary;   // one line
  const char* details;   // paragraphs; may be ""
  std::vector<OptionSpec> options;
  size_t minWords;
  size_t maxWords;
  int (*run)(const CommandLine& line);  // an ExitStatus
  bool needsSession = true;             // fails without a usable session directory
};

// All verbs, in the order of the help.
const std::vector<Verb>& AllVerbs();

// Options that several verbs have. Every verb has kHelpOption without naming it.
extern const OptionSpec kHelpOption;
extern const OptionSpec kJsonOption;
extern const OptionSpec kTimeoutOption;
extern const OptionSpec kDeviceTimeoutOption;

// Prints a line to standard error, after the tool's name.
void Say(const std::string& text);

// Prints a line of JSON to standard output.
void PrintJson(const JsonValue& value);

// One for each verb, beside the function that it runs.
Verb PortsVerb();
Verb SendVerb();
Verb QuitVerb();
Verb StatusVerb();
Verb AppsVerb();
Verb WaitVerb();
Verb StopVerb();
Verb RestartVerb();
Verb DescribeVerb();
Verb ServeVerb();
Verb DoctorVerb();
Verb SelftestVerb();
Verb LaunchVerb();
Verb StartVerb();
Verb DevicesVerb();
Verb DeviceVerb();
Verb DeviceStatusVerb();
Verb PsVerb();
Verb SessionVerb();
Verb NotifyVerb();
Verb PlistVerb();
Verb PrefsVerb();
Verb VersionVerb();
Verb HelpVerb();  // in tool.cpp, beside the texts
