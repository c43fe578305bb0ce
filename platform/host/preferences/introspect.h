#pragma once

#include <string>
#include <vector>

struct __CFString;

// Tells where preferences come from and why a file is not used. For tools, benchmarks and tests
// only. Any thread.

// One of the files in which the preferences of an application are searched.
struct HostPreferencesSource {
  std::string path;
  bool isForAnyUser = false;  // else the current user's
  bool isForThisHost = false;
  bool isForAnyApplication = false;
  bool exists = false;
  bool hasValue = false;  // for the given key, even if it is not yet written
  std::string problem;    // one line: why the file is not used; "" if it is, or does not exist
};

// Returns those files in the order in which they are searched: the application's value comes from
// the first that has one. With a null `key`, no file has a value. Empty if the identifier can have
// no files.
std::vector<HostPreferencesSource> HostPreferencesSources(const __CFString* application,
                                                          const __CFString* key);

// Returns, in one line, why a domain has no values or why this process could not write it the last
// time, or "" if nothing is wrong with it.
std::string HostPreferencesProblem(const __CFString* application, const __CFString* user,
                                   const __CFString* host);

// Whether the last read of `key` in this process failed because the domain could not be read then,
// although it perhaps can be now.
bool HostPreferencesIsUnread(const __CFString* key, const __CFString* application,
                             const __CFString* user, const __CFString* host);

// Whether the reason is a lack of memory: another try may succeed.
bool HostPreferencesLackMemory(const __CFString* application, const __CFString* user,
                               const __CFString* host);
