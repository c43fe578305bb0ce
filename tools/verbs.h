#pragma once

#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/json_value.h"

// The verbs of the tool. One table makes the help, the suggestions, and whatever else lists them.

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

const std::vector<Verb>& AllVerbs();

// Runs the tool on the words behind its name. Data goes to standard output, talk to standard error.
int RunTool(const std::vector<std::string>& words);

// One line on standard error, under the tool's name.
void Say(const std::string& text);

// One line of data: JSON on standard output.
void PrintJson(const JsonValue& value);

// One function for each verb, in a file of its own.
int RunLaunch(const CommandLine& line);
int RunPorts(const CommandLine& line);
int RunSend(const CommandLine& line);
int RunQuit(const CommandLine& line);
int RunStatus(const CommandLine& line);
int RunStart(const CommandLine& line);
int RunDevices(const CommandLine& line);
int RunDevice(const CommandLine& line);
int RunDeviceStatus(const CommandLine& line);
int RunPs(const CommandLine& line);
int RunSession(const CommandLine& line);
int RunPlist(const CommandLine& line);
int RunPrefs(const CommandLine& line);
