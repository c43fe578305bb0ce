#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <new>
#include <string>
#include <string_view>

#include "util/owned_ref.h"

// The values in property lists as text, in both directions. Any thread; only one at a time may use
// a container.

// The object that a Create or Copy call with valid arguments gave. Null means that memory ran out:
// throws std::bad_alloc, which the program reports with its own exit status.
template <class Ref>
Ref Made(Ref object) {
  if (object == nullptr) throw std::bad_alloc();
  return object;
}

enum class PlistKind {
  kNone,
  kString,
  kInteger,
  kReal,
  kBoolean,
  kDate,
  kData,
  kArray,
  kDictionary
};

PlistKind KindOf(CFTypeRef object);
// "string", "integer", "real", "bool", "date", "data", "array", "dict".
const char* KindName(PlistKind kind);
PlistKind KindNamed(std::string_view name);  // kNone if no kind has this name
// The message about a name that no kind has.
std::string UnknownPlistType(std::string_view name);

inline bool IsContainer(PlistKind kind) {
  return kind == PlistKind::kArray || kind == PlistKind::kDictionary;
}

// Insert before an index (the count: at the end), and set. Both throw std::bad_alloc when the
// container could not grow, which the platform's own functions do not report.
void InsertInArray(CFMutableArrayRef array, CFIndex index, CFTypeRef value);
void SetInDictionary(CFMutableDictionaryRef dictionary, CFStringRef key, CFTypeRef value);

// Returns UTF-8. Half of a surrogate pair, which UTF-8 does not have, becomes the three bytes that
// it would have; JsonText escapes them, so that nothing is lost.
std::string TextOf(CFStringRef string);
// Returns null if the bytes are not UTF-8 or more than 2^31 - 1. The caller releases the string.
CFStringRef CreateString(std::string_view utf8);

// Returns a leaf as people write it: a string's characters, digits, true or false, a date in UTC
// (2005-03-01T12:34:56Z, with a fraction if it has one), data as base64 on one line. The digits of
// a real number read back as the same value. A container gives "".
std::string LeafText(CFTypeRef leaf);

// Makes a leaf from such a text; the caller releases it. Returns null with a message if the text is
// not one.
CFTypeRef CreateLeaf(PlistKind kind, std::string_view text, std::string& problem);

// Makes a value from an argument of the command line; the caller releases it. An argument that
// begins like JSON or a property list ({ [ ( < or a quotation mark), or is a number, true or false,
// is read as such; any other is a string. Returns null with a message if it cannot be read.
CFTypeRef CreateValue(std::string_view text, std::string& problem);

// Makes a value of a known kind: `type` is the kind's name, or "" for the kind of the value that is
// replaced. If that is null, any kind will do. Also returns null if the type does not exist or the
// value has another one, and if the kind is that of a replaced string but the text begins like a
// dictionary or array, which nobody means as a string.
CFTypeRef CreateValueOfType(const std::string& type, std::string_view text, CFTypeRef replaced,
                            std::string& problem);
