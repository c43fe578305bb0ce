#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// Property lists as text for people. Any thread; only one at a time may use a list.

// Several lines, each with a line feed at its end:
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
std::string PlistText(CFTypeRef list);

// One value on one line; a container as {...} or [...] with its size.
std::string PlistLine(CFTypeRef value);
