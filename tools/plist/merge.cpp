#include "tools/plist/merge.h"

#include <algorithm>

#include "tools/plist/diff.h"
#include "tools/plist/leaf.h"
#include "tools/plist/path.h"

// Both functions recurse: readers accept at most 512 levels.

namespace {

std::vector<CFStringRef> KeysOf(CFDictionaryRef dictionary) {
  std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(dictionary)));
  CFDictionaryGetKeysAndValues(dictionary, keys.data(), nullptr);
  std::vector<CFStringRef> names;
  names.reserve(keys.size());
  for (const void* key : keys) names.push_back(static_cast<CFStringRef>(key));
  return names;
}

OwnedRef<CFMutableDictionaryRef> NewDictionary() {
  return Made(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                        &kCFTypeDictionaryValueCallBacks));
}

OwnedRef<CFMutableArrayRef> NewArray() {
  return Made(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
}

struct Sides {
  CFTypeRef base;
  CFTypeRef ours;
  CFTypeRef theirs;
};

bool AreArraysOfOneSize(const Sides& sides) {
  CFIndex count = -1;
  for (CFTypeRef side : {sides.base, sides.ours, sides.theirs}) {
    if (KindOf(side) != PlistKind::kArray) return false;
    const CFIndex items = CFArrayGetCount(static_cast<CFArrayRef>(side));
    if (count >= 0 && items != count) return false;
    count = items;
  }
  return true;
}

class Merging {
 public:
  Merging(bool prefersTheirs, std::vector<PlistConflict>& conflicts)
      : prefersTheirs(prefersTheirs), conflicts(conflicts) {}

  // Returns null if the result has no value here.
  OwnedRef<CFTypeRef> Merge(const Sides& sides) {
    // A missing base counts as an empty dictionary if both sides have added one.
    const bool areDictionaries = KindOf(sides.ours) == PlistKind::kDictionary &&
                                 KindOf(sides.theirs) == PlistKind::kDictionary;
    if (areDictionaries &&
        (sides.base == nullptr || KindOf(sides.base) == PlistKind::kDictionary)) {
      return MergeDictionaries(sides);
    }
    if (AreArraysOfOneSize(sides)) return MergeArrays(sides);
    if (IsSamePlist(sides.ours, sides.theirs)) return Copy(sides.ours);
    if (IsSamePlist(sides.base, sides.ours)) return Copy(sides.theirs);
    if (IsSamePlist(sides.base, sides.theirs)) return Copy(sides.ours);
    conflicts.push_back({PlistPathText(path), sides.base, sides.ours, sides.theirs});
    return Copy(prefersTheirs ? sides.theirs : sides.ours);
  }

 private:
  static OwnedRef<CFTypeRef> Copy(CFTypeRef value) { return CFRetain(value); }

  OwnedRef<CFTypeRef> MergeDictionaries(const Sides& sides) {
    const auto* base = static_cast<CFDictionaryRef>(sides.base);
    const auto* ours = static_cast<CFDictionaryRef>(sides.ours);
    const auto* theirs = static_cast<CFDictionaryRef>(sides.theirs);
    const OwnedRef<CFMutableDictionaryRef> merged = NewDictionary();
    const auto add = [&](CFStringRef key) {
      const Sides values = {base != nullptr ? CFDictionaryGetValue(base, key) : nullptr,
                            CFDictionaryGetValue(ours, key), CFDictionaryGetValue(theirs, key)};
      path.push_back(TextOf(key));
      const OwnedRef<CFTypeRef> value = Merge(values);
      path.pop_back();
      if (value != nullptr) SetInDictionary(merged, key, value);
    };
    for (CFStringRef key : KeysOf(ours)) add(key);
    for (CFStringRef key : KeysOf(theirs)) {
      if (!CFDictionaryContainsKey(ours, key)) add(key);
    }
    return CFRetain(merged);
  }

  OwnedRef<CFTypeRef> MergeArrays(const Sides& sides) {
    const OwnedRef<CFMutableArrayRef> merged = NewArray();
    const auto item = [](CFTypeRef array, CFIndex index) {
      return CFArrayGetValueAtIndex(static_cast<CFArrayRef>(array), index);
    };
    for (CFIndex i = 0; i < CFArrayGetCount(static_cast<CFArrayRef>(sides.ours)); ++i) {
      path.push_back(std::to_string(i));
      InsertInArray(merged, i,
                    Merge({item(sides.base, i), item(sides.ours, i), item(sides.theirs, i)}));
      path.pop_back();
    }
    return CFRetain(merged);
  }

  const bool prefersTheirs;
  std::vector<PlistConflict>& conflicts;
  PlistPath path;
};

}  // namespace

OwnedRef<CFTypeRef> MergePlists(CFTypeRef base, CFTypeRef ours, CFTypeRef theirs,
                                bool prefersTheirs, std::vector<PlistConflict>& conflicts) {
  return Merging(prefersTheirs, conflicts).Merge({base, ours, theirs});
}

OwnedRef<CFTypeRef> SortedPlist(CFTypeRef list) {
  if (KindOf(list) == PlistKind::kArray) {
    const auto* array = static_cast<CFArrayRef>(list);
    const OwnedRef<CFMutableArrayRef> sorted = NewArray();
    for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
      InsertInArray(sorted, i, SortedPlist(CFArrayGetValueAtIndex(array, i)));
    }
    return CFRetain(sorted);
  }
  if (KindOf(list) != PlistKind::kDictionary) return CFRetain(list);
  const auto* dictionary = static_cast<CFDictionaryRef>(list);
  const OwnedRef<CFMutableDictionaryRef> sorted = NewDictionary();
  std::vector<CFStringRef> keys = KeysOf(dictionary);
  std::ranges::sort(keys, [](CFStringRef a, CFStringRef b) {
    return CFStringCompare(a, b, 0) == kCFCompareLessThan;
  });
  for (CFStringRef key : keys) {
    SetInDictionary(sorted, key, SortedPlist(CFDictionaryGetValue(dictionary, key)));
  }
  return CFRetain(sorted);
}
