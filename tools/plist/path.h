#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <string_view>
#include <vector>

// Key paths: keys of dictionaries and indexes of arrays, from 0, separated by dots, as in
// "servers.0.name". A backslash makes the next character part of the key: "com\.example.port". The
// empty path means the whole list. Any thread; only one thread at a time may use a list.

using PlistPath = std::vector<std::string>;

// Returns false if nothing follows the last backslash.
bool ParsePlistPath(std::string_view text, PlistPath& path);
// Returns the text that ParsePlistPath reads.
std::string PlistPathText(const PlistPath& path);

// Returns the value at the path, borrowed from the list, or null with a message.
CFTypeRef FindInPlist(CFTypeRef list, const PlistPath& path, std::string& problem);

enum class PlistChange {
  kSet,     // replaces a value, or adds one under a new key or after an array's last item
  kInsert,  // adds a new key, or an item before an array index (the count: after the last item)
  kRemove,
};

// Makes one change in a list of mutable containers. `value` is borrowed, and null for kRemove. The
// path must not be empty, because nothing contains the whole list. Returns false with a message if
// nothing was changed.
bool ChangePlist(CFTypeRef list, const PlistPath& path, PlistChange change, CFTypeRef value,
                 std::string& problem);
