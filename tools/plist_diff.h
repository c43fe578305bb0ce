#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <vector>

// One place where two property lists differ. Borrowed from the lists.
struct PlistDifference {
  std::string path;            // as ParsePlistPath reads it
  CFTypeRef before = nullptr;  // null: added
  CFTypeRef after = nullptr;   // null: removed
};

// All of them, in the order of the first list, what was added behind it. Dictionaries are compared
// by key, arrays by index, leaves by kind and value. No recursion.
std::vector<PlistDifference> DiffPlists(CFTypeRef before, CFTypeRef after);
