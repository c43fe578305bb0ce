#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <vector>

#include "util/owned_ref.h"

// Merges two changed copies of a property list, and puts lists into one order. One thread.

// A value that both sides changed, differently. Borrowed from the lists; null: there is none.
struct PlistConflict {
  std::string path;
  CFTypeRef base = nullptr;
  CFTypeRef ours = nullptr;
  CFTypeRef theirs = nullptr;
};

// Returns a new list with the changes of both sides. Dictionaries are merged key by key, and arrays
// item by item if all three have the same number of items; anything else is one value. Where both
// sides changed a value, differently, the result has that of ours, or with `prefersTheirs` of
// theirs, and the conflict is added to the list. A null result means no value: a side whose root is
// preferred was removed, which does not happen if no list is null.
OwnedRef<CFTypeRef> MergePlists(CFTypeRef base, CFTypeRef ours, CFTypeRef theirs,
                                bool prefersTheirs, std::vector<PlistConflict>& conflicts);

// Returns a copy whose dictionaries have their keys in ascending order of their UTF-16 code units.
OwnedRef<CFTypeRef> SortedPlist(CFTypeRef list);
