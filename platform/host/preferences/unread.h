#pragma once

#include <CoreFoundation/CFString.h>

#include "platform/host/objects/cf_dictionary.h"

// The keys of one file whose values this process wanted but could not get, because the file could
// not be read. A program that finds no value may commit a default; such a default must not replace
// the value that the file has all the same. The owner's mutex guards it, so any thread that holds
// that may use it. No function throws: without memory more keys count as unread than are.
class HostUnreadPreferences {
 public:
  // After a look for one key, or for all: whether the file could not be read.
  void Note(CFStringRef key, bool isUnread);
  void NoteAll(bool isUnread);

  bool Has(CFStringRef key) const;
  // Returns whether no key is unread.
  bool IsEmpty() const { return !areAll && !others; }

 private:
  bool areAll = false;                    // every key is unread but for `others`
  HostRetained<HostCFDictionary> others;  // keys of which the opposite of `areAll` holds; or null
};
