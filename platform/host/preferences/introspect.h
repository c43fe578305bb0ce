#pragma once

#include <string>
#include <vector>

#include "platform/host/preferences/watch.h"

struct __CFString;

// Tells where preferences come from and why a file is not used, watches their files (watch.h),
// and changes them depending on what they have. For tools, benchmarks and tests only. Any thread.

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

// The new value of a key, and the one that it must have until then; null: none.
struct HostPreferencesChange {
  const __CFString* key = nullptr;
  const void* before = nullptr;
  const void* after = nullptr;
};

enum class HostPreferencesCommit {
  kWritten,
  kOutdated,  // a key has another value than `before`: nothing was changed
  kFailed
};

// Makes all changes or none, and waits for the disk. The values are compared under the file's lock,
// so no other process's change is overwritten unseen. If they were not written, `*problem` has the
// reason in one line. Throws std::bad_alloc without memory.
HostPreferencesCommit HostReplacePreferences(const std::vector<HostPreferencesChange>& changes,
                                             const __CFString* application, const __CFString* user,
                                             const __CFString* host, std::string* problem);

// Returns the user's folder for what programs keep from run to run, $XDG_STATE_HOME/veltrane, or ""
// if there is none.
std::string HostPreferencesStateFolder();
