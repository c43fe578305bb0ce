#pragma once

#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/plist/diff.h"
#include "tools/plist/file.h"
#include "tools/values/json_value.h"

// What the actions of `vltctl plist` share. One thread.

// The arguments after the action's name, and the options.
struct PlistRequest {
  const CommandLine& line;
  std::vector<std::string> words;

  bool WantsJson() const { return line.Has("--json"); }
  std::string Option(const char* name) const {
    const auto found = line.options.find(name);
    return found != line.options.end() ? found->second : "";
  }
};

// Print a message to standard error and return the exit status.
int PlistUsage(const std::string& problem);
int TellPlist(const PlistProblem& problem);

// The form in which a changed list is written: a binary file stays binary, every other form becomes
// XML.
CFPropertyListFormat FormatToWrite(CFPropertyListFormat read);

// A difference as JSON, and as lines for people.
JsonValue DifferenceModel(const PlistDifference& difference);
std::string DifferenceLines(const PlistDifference& difference);

// The members of a value in such a model: its type and the value; null for none.
void AddValue(JsonValue& model, const std::string& name, CFTypeRef value);

// The actions. Each returns an exit status.
int DiffFiles(const PlistRequest& request);
int MergeFiles(const PlistRequest& request);
int CanonicalFile(const PlistRequest& request);
