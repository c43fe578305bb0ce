#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <string_view>
#include <vector>

// Key paths: keys of dictionaries and indexes of arrays, from 0, with points between them, as in
// "servers.0.name". A backslash takes the character behind it as it is: "com\.example.port". The
// empty path is the whole list.

using PlistPath = std::vector<std::string>;

// False when a backslash has nothing behind it.
bool ParsePlistPath(std::string_view text, PlistPath& path);
// The other way round.
std::string PlistPathText(const PlistPath& path);

// What is there, borrowed from the list; null with what is wrong.
CFTypeRef FindInPlist(CFTypeRef list, const PlistPath& path, std::string& problem);

enum class PlistChange {
  kSet,     // puts the value in place of what is there, or in a new key, or behind an array's last
  kInsert,  // a new key, or before an index of an array (the count: behind the last)
  kRemove,
};

// Makes one change in a list of mutable containers. `value` is borrowed, null for kRemove. The path
// is not empty: a whole list has nothing around it. False with what is wrong, and nothing changed.
bool ChangePlist(CFTypeRef list, const PlistPath& path, PlistChange change, CFTypeRef value,
                 std::string& problem);
