#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>
#include <string>

// One place where two property lists differ. Borrowed from the lists.
struct PlistDifference {
  std::string path;            // as ParsePlistPath reads it
  CFTypeRef before = nullptr;  // null: added
  CFTypeRef after = nullptr;   // null: removed
};

// Tells all of them, in the order of the first list, what was added behind it. Dictionaries are
// compared by key, arrays by index, leaves by kind and value. No recursion; one path is in memory
// at a time, because hostile lists have long ones.
void DiffPlists(CFTypeRef before, CFTypeRef after,
                const std::function<void(const PlistDifference&)>& tell);
