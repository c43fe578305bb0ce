#include "tools/plist_diff.h"

#include <algorithm>

#include "tools/plist_leaf.h"
#include "tools/plist_path.h"

namespace {

using Pairs = std::vector<PlistDifference>;

std::string Inside(const std::string& path, const std::string& step) {
  return path.empty() ? step : path + '.' + step;
}

std::vector<const void*> KeysOf(CFDictionaryRef dictionary) {
  std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(dictionary)));
  CFDictionaryGetKeysAndValues(dictionary, keys.data(), nullptr);
  return keys;
}

void AddMembers(const PlistDifference& both, Pairs& pairs) {
  const auto* before = static_cast<CFDictionaryRef>(both.before);
  const auto* after = static_cast<CFDictionaryRef>(both.after);
  auto add = [&](const void* key) {
    pairs.push_back({Inside(both.path, PlistPathStep(TextOf(static_cast<CFStringRef>(key)))),
                     CFDictionaryGetValue(before, key), CFDictionaryGetValue(after, key)});
  };
  for (const void* key : KeysOf(before)) add(key);
  for (const void* key : KeysOf(after)) {
    if (!CFDictionaryContainsKey(before, key)) add(key);
  }
}

void AddItems(const PlistDifference& both, Pairs& pairs) {
  const auto* before = static_cast<CFArrayRef>(both.before);
  const auto* after = static_cast<CFArrayRef>(both.after);
  const CFIndex count = std::max(CFArrayGetCount(before), CFArrayGetCount(after));
  for (CFIndex i = 0; i < count; ++i) {
    pairs.push_back({Inside(both.path, std::to_string(i)), CFArrayGetValueAtIndex(before, i),
                     CFArrayGetValueAtIndex(after, i)});
  }
}

// Zeros of either sign are equal, and differ here: their texts do.
bool AreSameLeaves(CFTypeRef before, CFTypeRef after, PlistKind kind) {
  return CFEqual(before, after) &&
         (kind != PlistKind::kReal || LeafText(before) == LeafText(after));
}

}  // namespace

std::vector<PlistDifference> DiffPlists(CFTypeRef before, CFTypeRef after) {
  Pairs differences;
  Pairs waiting = {{"", before, after}};  // the last one is next
  while (!waiting.empty()) {
    const PlistDifference both = std::move(waiting.back());
    waiting.pop_back();
    const PlistKind kind = KindOf(both.before);
    const bool isSameKind = kind == KindOf(both.after);
    if (isSameKind && IsContainer(kind)) {
      Pairs inside;
      if (kind == PlistKind::kDictionary)
        AddMembers(both, inside);
      else
        AddItems(both, inside);
      waiting.insert(waiting.end(), inside.rbegin(), inside.rend());
    } else if (!isSameKind || !AreSameLeaves(both.before, both.after, kind)) {
      differences.push_back(both);
    }
  }
  return differences;
}
