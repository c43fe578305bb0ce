#pragma once

#include <string>

#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/preferences/place.h"
#include "platform/host/preferences/read.h"

// Changing some keys of a preferences file so that no other process's changes are lost. No state;
// any thread, and any number of processes. Paths are followed through symbolic links.
//
// Beside ID.plist stand .ID.plist.lock, an empty file whose byte 0 is locked while a process writes
// and which is never removed, and .ID.plist.new, the file that is being written. The next process
// that holds the lock removes the latter if its writer has died.

// The value that means "remove this key" in changes.
extern HostCFString gHostRemovedPreference;

struct HostPreferencesChanges {
  HostRetained<HostCFDictionary> values;  // key -> value, or the value above
  // Keys of `values` that this process could not read before it set them. If the file has another
  // value for one of them, that value stays. Null: there are none.
  HostRetained<HostCFDictionary> unread;
  // Keys of `values` with what the file must have under them for any change to be made: a value, or
  // the one above for none. Null: whatever it has.
  HostRetained<HostCFDictionary> expected;
};

// Applies `changes`, whose values must not be null, to the content that the file has at that
// moment, under its lock, and waits for the disk. Creates missing folders. What a privileged
// program creates in a user's folder belongs to that user.
//
// Returns true and stores the file's new content in `*content`, and in `*problem` "" or, in one
// line, which changes were not applied: all, if one value is not as expected. Returns false and
// stores the reason in `*problem`, in one line: then the old file is there or, if only its folder
// could not be synced, the new one. A file that cannot be read is never changed.
bool HostCommitPreferences(const HostPreferencesPlace& place, const HostPreferencesChanges& changes,
                           HostPreferencesContent* content, std::string* problem);
