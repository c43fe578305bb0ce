#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// A property list as people read it, of several lines, the last one ended:
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
// Strings stand in quotation marks with JSON's escapes; keys too, unless they are plain words.
std::string PlistText(CFTypeRef list);

// One value of it on one line; containers as {...} with their size.
std::string PlistLine(CFTypeRef value);
