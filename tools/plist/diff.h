#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>
#include <string>

// One difference between two property lists. The values are borrowed from them.
struct PlistDifference {
  std::string path;            // as ParsePlistPath reads it
  CFTypeRef before = nullptr;  // null: added
  CFTypeRef after = nullptr;   // null: removed
};

// Calls `tell` for each difference, in the order of the first list; in each container the added
// values come last. Dictionaries are compared by key, arrays by index, leaves by kind and value.
// Does not recurse and has only one path in memory at a time, because hostile lists have long ones.
// One thread.
void DiffPlists(CFTypeRef before, CFTypeRef after,
                const std::function<void(const PlistDifference&)>& tell);

// Whether there is no difference. Null, for no value, is equal to null only.
bool IsSamePlist(CFTypeRef a, CFTypeRef b);
