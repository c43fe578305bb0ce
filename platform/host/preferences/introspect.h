#pragma once

#include <string>
#include <vector>

struct __CFString;

// Where preferences come from, and why a file is not used: for tools, benchmarks and tests only.
// Any thread.

// One of the files in which the preferences of an application are looked up.
struct HostPreferencesSource {
  std::string path;
  bool isForAnyUser = false;  // else the current user's
  bool isForThisHost = false;
  bool isForAnyApplication = false;
  bool exists = false;
  bool hasValue = false;  // under the key that was asked for, also when it is not written yet
  std::string problem;    // one line, why the file is not used; "" when it is, or does not exist
};

// Those files, the strongest first: the first one that has a value is where the application's value
// comes from. `key` may be null: no values then. Empty when the identifier can have no files.
std::vector<HostPreferencesSource> HostPreferencesSources(const __CFString* application,
                                                          const __CFString* key);

// Why one domain has no values or was not written by the last synchronising of this process, in one
// line; "" when nothing is wrong with it.
std::string HostPreferencesProblem(const __CFString* application, const __CFString* user,
                                   const __CFString* host);
