#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <new>
#include <string>
#include <string_view>

#include "util/owned_ref.h"

// The values in property lists as text, in both directions. Pure functions, any thread.

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
PlistKind KindNamed(std::string_view name);  // kNone when no kind has this name
// The message about a name that no kind has.
std::string UnknownPlistType(std::string_view name);

inline bool IsContainer(PlistKind kind) {
  return kind == PlistKind::kArray || kind == PlistKind::kDictionary;
}

// Insert before an index (the count: at the end), and set. Both throw std::bad_alloc when the
// container could not grow, which the platform's own functions do not report.
void InsertInArray(CFMutableArrayRef array, CFIndex index, CFTypeRef value);
void SetInDictionary(CFMutableDictionaryRef dictionary, CFStringRef key, CFTypeRef value);

// UTF-8. Half of a surrogate pair, which has no form there, takes the three bytes that it would
// have: JsonText makes its escape of them, so that nothing is lost.
std::string TextOf(CFStringRef string);
// Null when the bytes are not UTF-8 or more than 2^31 - 1. The caller releases it.
CFStringRef CreateString(std::string_view utf8);

// A leaf as people write it: a string's characters, digits, true or false, a date in UTC
// (2005-03-01T12:34:56Z), data as base64 on one line. Reals have the digits that read back as the
// same value. "" for a container.
std::string LeafText(CFTypeRef leaf);

// The leaf that such a text means; the caller releases it. Null with what is wrong.
CFTypeRef CreateLeaf(PlistKind kind, std::string_view text, std::string& problem);

// What a word on the command line means; the caller releases it. Null with what is wrong.
//
// JSON or a property list when it begins like one ({ [ ( < or a quotation mark) or is a number,
// true or false, else a string.
CFTypeRef CreateValue(std::string_view text, std::string& problem);

// The same for a value whose kind is known: `type` is the name of one, or "" for that of the value
// that is replaced, which may be null: any kind then. Null also for a type that does not exist, and
// for a value of another one.
CFTypeRef CreateValueOfType(const std::string& type, std::string_view text, CFTypeRef replaced,
                            std::string& problem);
