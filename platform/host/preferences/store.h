#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <mutex>
#include <string>

#include "platform/host/preferences/commit.h"
#include "platform/host/preferences/place.h"
#include "platform/host/preferences/read.h"
#include "platform/host/preferences/unread.h"

// This room is the preferences store: where the files are (place.h), reading and writing them
// (read.h, commit.h), and what this process knows of them.
//
// The preferences of this process: a cache of the files that were read, and the values that were
// set here and not yet written.

// Values that were handed out and are no longer in the file. Callers may never release what they
// got; when a value comes back, the old object is handed out again, so memory grows with the number
// of different values and not with the number of changes. The owner's mutex guards it.
class HostFormerPreferences {
 public:
  // Returns a former object with the same value and type, or `value` itself. Borrowed.
  CFTypeRef Find(CFTypeRef value) const;
  // Keeps `value` if a caller has a reference to it, besides its present owner's.
  void Keep(CFTypeRef value);

 private:
  static constexpr size_t kFewest = 64;

  void Prune();

  HostRetained<HostCFDictionary> values;  // each its own key, also by type; made when needed
  size_t limit = kFewest;  // at this many, values without other references are dropped
};

// One file and the changes to it. Any thread. Never destroyed. See store.cpp for its states.
class HostPreferencesFile {
 public:
  explicit HostPreferencesFile(const HostPreferencesPlace& where) : place(where) {}

  // Returns the object for `place`, which must have a path.
  static HostPreferencesFile& At(const HostPreferencesPlace& place);

  // Returns the value, retained for the caller, or null if there is none. Makes one stat call if
  // the file has not changed, and no call if the key was set here.
  CFTypeRef CopyValue(CFStringRef key);
  // Returns a new dictionary of all entries, changes included, or null if the file could not be
  // read for a reason that may pass and never was read before.
  HostRetained<HostCFDictionary> CopyAll();
  // To be called when there was no memory to find the file whose value was to be read, or to hand
  // out what it has: until they are read again, the values of all files count as unread.
  static void NoteLostRead();
  // Sets a value, or removes the key if `value` is null. A value that no file can hold is refused:
  // the next Synchronize then returns false.
  void Set(CFStringRef key, CFPropertyListRef value);
  // Writes what was set. Returns false if that failed; the values stay set. If it failed because
  // the file has another value under a key that could not be read before, that value of the file
  // counts from now on, and the other changes are written.
  bool Synchronize();

  // Whether the last look for `key` failed because the file could not be read.
  bool IsUnread(CFStringRef key);

  // For people: the reason why the file is not used, or "" if it is used or does not exist.
  std::string Problem(bool* isThere);
  std::string Failure();  // the reason why the last Synchronize failed, or ""
  bool IsMemoryShort();   // whether that, or the reason of Problem or IsUnread, is a lack of memory

 private:
  void Refresh();
  void Adopt(HostPreferencesContent fresh);
  CFTypeRef KnownValue(CFStringRef key, CFTypeRef value) const;
  bool IsRefused() const;
  void NoteLostReads();
  bool TakeChanges(HostPreferencesChanges* taken, bool* wasRefused);
  void Finish(const HostCFDictionary& written, HostPreferencesContent fresh);
  static void LogOnce(const std::string& problem, std::string* last);

  const HostPreferencesPlace place;
  std::mutex committing;  // locked before `mutex`, and while the file is written
  std::mutex mutex;       // guards all below; never locked while waiting for another process
  bool wasRead = false;
  bool isStale = false;            // the last reading failed for a passing reason
  bool wasValueRefused = false;    // since the last Synchronize
  bool wasMemoryShort = false;     // the same, of a value that a file could hold
  bool isFailureOfMemory = false;  // of the last Synchronize
  HostPreferencesContent content;
  HostRetained<HostCFDictionary> changes;  // key -> value or gHostRemovedPreference; null: none
  HostUnreadPreferences unread;
  bool isUnreadForMemory = false;  // that is why one of them is unread; until the next Synchronize
  uint32_t lostReads = 0;          // of all files, as many as `unread` has in account
  HostFormerPreferences former;
  std::string lastRefusal;  // already logged
  std::string lastFailure;  // of Synchronize; already logged, here or as a refusal
};
