#include "tools/plist/path.h"

#include <cassert>
#include <charconv>
#include <cstddef>

#include "tools/plist/leaf.h"

namespace {

// Reads a decimal index and nothing else; -1 if it is not one.
CFIndex IndexOf(const std::string& step) {
  CFIndex index = -1;
  const char* end = step.data() + step.size();
  const auto parsed = std::from_chars(step.data(), end, index);
  return parsed.ec == std::errc() && parsed.ptr == end && index >= 0 ? index : -1;
}

// A key as the text of a path has it.
std::string StepText(std::string_view key) {
  std::string step;
  for (const char c : key) {
    if (c == '.' || c == '\\') step += '\\';
    step += c;
  }
  return step;
}

CFArrayRef AsArray(CFTypeRef object) { return static_cast<CFArrayRef>(object); }
CFDictionaryRef AsDictionary(CFTypeRef object) { return static_cast<CFDictionaryRef>(object); }

CFTypeRef Child(CFTypeRef container, const std::string& step) {
  switch (KindOf(container)) {
    case PlistKind::kArray:
      return CFArrayGetValueAtIndex(AsArray(container), IndexOf(step));
    case PlistKind::kDictionary:
      return CFDictionaryGetValue(AsDictionary(container),
                                  OwnedRef<CFStringRef>(CreateString(step)));
    default:
      return nullptr;
  }
}

// The message that a container has no value for the next step.
std::string WhyNot(CFTypeRef container, const PlistPath& path, size_t depth) {
  const std::string whole =
      PlistPathText({path.begin(), path.begin() + static_cast<ptrdiff_t>(depth)});
  const std::string place = whole.empty() ? "the list" : whole;
  const PlistKind kind = KindOf(container);
  if (kind == PlistKind::kDictionary) return place + " has no key \"" + path[depth] + "\"";
  if (kind != PlistKind::kArray) {
    const char* const article = kind == PlistKind::kInteger ? " is an " : " is a ";
    return place + article + KindName(kind) + " and contains nothing";
  }
  const CFIndex count = CFArrayGetCount(AsArray(container));
  return place + " is an array of " + std::to_string(count) + " and has no index \"" + path[depth] +
         "\"";
}

bool ChangeArray(CFMutableArrayRef array, const std::string& step, PlistChange change,
                 CFTypeRef value) {
  const CFIndex index = IndexOf(step);
  const CFIndex count = CFArrayGetCount(array);
  if (index < 0 || index > count || (index == count && change == PlistChange::kRemove)) {
    return false;
  }
  const bool isNew = change == PlistChange::kInsert || index == count;
  if (change == PlistChange::kSet && !isNew) CFArraySetValueAtIndex(array, index, value);
  if (change != PlistChange::kRemove && isNew) InsertInArray(array, index, value);
  if (change == PlistChange::kRemove) CFArrayRemoveValueAtIndex(array, index);
  return true;
}

bool ChangeDictionary(CFMutableDictionaryRef dictionary, const PlistPath& path, PlistChange change,
                      CFTypeRef value, std::string& problem) {
  const OwnedRef<CFStringRef> key(CreateString(path.back()));
  const bool isThere = CFDictionaryContainsKey(dictionary, key);
  if (static_cast<CFStringRef>(key) == nullptr) {
    problem = "the key is not UTF-8";
  } else if (change == PlistChange::kRemove && !isThere) {
    problem = WhyNot(dictionary, path, path.size() - 1);
  } else if (change == PlistChange::kInsert && isThere) {
    problem = PlistPathText(path) + " exists already";
  } else if (change == PlistChange::kRemove) {
    CFDictionaryRemoveValue(dictionary, key);
  } else {
    SetInDictionary(dictionary, key, value);
  }
  return problem.empty();
}

}  // namespace

bool ParsePlistPath(std::string_view text, PlistPath& path) {
  path.clear();
  if (text.empty()) return true;
  path.emplace_back();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '.') {
      path.emplace_back();
      continue;
    }
    if (text[i] == '\\' && ++i == text.size()) return false;
    path.back() += text[i];
  }
  return true;
}

std::string PlistPathText(const PlistPath& path) {
  std::string text;
  for (const std::string& step : path) {
    if (&step != &path.front()) text += '.';
    text += StepText(step);
  }
  return text;
}

CFTypeRef FindInPlist(CFTypeRef list, const PlistPath& path, std::string& problem) {
  for (size_t depth = 0; depth < path.size(); ++depth) {
    CFTypeRef child = Child(list, path[depth]);
    if (child == nullptr) {
      problem = WhyNot(list, path, depth);
      return nullptr;
    }
    list = child;
  }
  return list;
}

bool ChangePlist(CFTypeRef list, const PlistPath& path, PlistChange change, CFTypeRef value,
                 std::string& problem) {
  assert(!path.empty());
  problem.clear();
  CFTypeRef container = FindInPlist(list, {path.begin(), path.end() - 1}, problem);
  if (container == nullptr) return false;
  auto* changed = const_cast<void*>(container);
  switch (KindOf(container)) {
    case PlistKind::kDictionary:
      return ChangeDictionary(static_cast<CFMutableDictionaryRef>(changed), path, change, value,
                              problem);
    case PlistKind::kArray:
      if (ChangeArray(static_cast<CFMutableArrayRef>(changed), path.back(), change, value)) {
        return true;
      }
      break;
    default:
      break;
  }
  problem = WhyNot(container, path, path.size() - 1);
  return false;
}
