#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/plist/leaf.h"

// The journal of the tool's own changes of preferences, by which they can be taken back: a property
// list in $XDG_STATE_HOME/veltrane/undo, which only the user may read. It keeps the last 64
// changes, and at most 4 MiB. Whoever changes preferences has it open meanwhile, so the order of
// its entries is that of the changes. One thread.

// One key's part of a change. Null: no value.
struct PrefsKeyChange {
  OwnedRef<CFStringRef> key;
  OwnedRef<CFTypeRef> before;
  OwnedRef<CFTypeRef> after;
};

struct PrefsWrite {
  std::string domain;
  std::string file;
  bool isForAnyUser = false;
  bool isForThisHost = false;
  std::vector<PrefsKeyChange> changes;
};

class PrefsJournal {
 public:
  PrefsJournal() = default;
  PrefsJournal(const PrefsJournal&) = delete;
  PrefsJournal& operator=(const PrefsJournal&) = delete;
  ~PrefsJournal();

  // Waits at most ten seconds until no other process has the journal open. Returns false with the
  // reason. With `forReading` a journal that cannot be read is a failure; else it begins from the
  // start.
  bool Open(bool forReading, std::string& problem);

  // Adds a write and saves the journal. Returns false with the reason.
  bool Add(const PrefsWrite& write, std::string& problem);

  // Finds the last write that `isWanted`. Returns its number, or -1 if there is none.
  CFIndex FindLast(const std::function<bool(const PrefsWrite&)>& isWanted, PrefsWrite& found) const;

  // Removes a write and saves the journal. Returns false with the reason.
  bool Remove(CFIndex number, std::string& problem);

 private:
  bool Lock(const std::string& folder, std::string& problem);
  bool Save(std::string& problem);

  int lock = -1;
  std::string file;
  OwnedRef<CFMutableArrayRef> writes;
};
