#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <mutex>
#include <string>

#include "platform/host/preferences/disk.h"

// The preferences of this process: what the files say, as far as they were asked for, and what was
// set here and not written yet. Any thread.

// Values that were handed out and are no longer in the file. Readers may leave their reference
// behind; when a value comes back, the old object is handed out again, so memory grows with the
// number of different values and not with the number of changes. Guarded by its owner.
class HostFormerPreferences {
 public:
  // The object to keep for `value`: a former one of the same value and type, else itself. Borrowed.
  CFTypeRef Find(CFTypeRef value) const;
  // Keeps `value` when somebody besides its holder has a reference.
  void Keep(CFTypeRef value);

 private:
  static constexpr size_t kFewest = 64;

  void Prune();

  HostRetained<HostCFDictionary> values;  // each its own key, also by type; made when needed
  size_t limit = kFewest;                 // when to look for those that nobody has any more
};

// One file and the changes to it. Never destroyed.
class HostPreferencesFile {
 public:
  explicit HostPreferencesFile(const HostPreferencesPlace& where) : place(where) {}

  // The file at `place`, which has a path.
  static HostPreferencesFile& At(const HostPreferencesPlace& place);

  // Retained for the caller; null when absent. One question to the kernel when the file has not
  // changed, none when the key has been set here.
  CFTypeRef CopyValue(CFStringRef key);
  // All entries, changes included; retained for the caller, null without memory. The dictionary is
  // nobody else's.
  HostRetained<HostCFDictionary> CopyAll();
  // `value` null removes.
  void Set(CFStringRef key, CFPropertyListRef value);
  bool Synchronize();

  // For people: why the file is not used, "" when it is or is absent; and whether it is there.
  std::string Problem(bool* isThere);
  std::string Failure();  // of the last synchronising; "" when it succeeded

 private:
  void Refresh();
  void Adopt(HostPreferencesContent fresh);
  CFTypeRef KnownValue(CFStringRef key, CFTypeRef value) const;
  bool TakeChanges(HostRetained<HostCFDictionary>* taken, bool* wasRefused);
  void Finish(const HostCFDictionary& written, HostPreferencesContent fresh);
  static void LogOnce(const std::string& problem, std::string* last);

  const HostPreferencesPlace place;
  std::mutex committing;  // taken before `mutex`; held while the disk is written
  std::mutex mutex;       // of all below; never held while another process is waited for
  bool wasRead = false;
  bool wasValueRefused = false;  // since the last synchronising
  HostPreferencesContent content;
  HostRetained<HostCFDictionary> changes;  // key -> value or gHostRemovedPreference; null: none
  HostFormerPreferences former;
  std::string lastRefusal;  // that the log has
  std::string lastFailure;  // of synchronising; the log has it, here or as a refusal
};
