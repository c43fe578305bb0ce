#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>
#include <string>
#include <string_view>

// Property lists as text for people. Any thread; only one at a time may use a list.

// Writes several lines, each with a line feed at its end:
//
//   {
//     name = "a text"
//     list = [
//       1
//       0.5
//       true
//       2005-03-01T12:34:56Z
//       <00ff...> (40 bytes)
//     ]
//   }
//
// Strings are in quotation marks with JSON's escapes, and so are keys, unless they consist of
// letters, digits, _ and -.
void WritePlistText(CFTypeRef list, const std::function<void(std::string_view)>& write);

// Print a list to standard output, as such lines, or as JSON on one line without its end.
void PrintPlistText(CFTypeRef list);
void PrintPlistJson(CFTypeRef list);

// One value on one line; a container as {...} or [...] with its size.
std::string PlistLine(CFTypeRef value);
