#include "tools/plist/diff.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "tools/plist/leaf.h"
#include "tools/plist/path.h"

namespace {

constexpr size_t kNone = SIZE_MAX;

// The position of two values to compare.
struct Place {
  size_t container = kNone;    // index in `entered`; kNone: these are the whole lists
  CFStringRef key = nullptr;   // in a dictionary
  CFIndex index = 0;           // in an array
  CFTypeRef before = nullptr;  // null: missing
  CFTypeRef after = nullptr;
};

// 0 and -0 are equal numbers, but they differ here, because their texts do.
bool AreSameLeaves(CFTypeRef before, CFTypeRef after, PlistKind kind) {
  return CFEqual(before, after) &&
         (kind != PlistKind::kReal || LeafText(before) == LeafText(after));
}

class Comparison {
 public:
  explicit Comparison(const std::function<void(const PlistDifference&)>& tell) : tell(tell) {}

  void Run(CFTypeRef before, CFTypeRef after) {
    waiting.push_back({kNone, nullptr, 0, before, after});
    while (!waiting.empty()) {
      const Place place = waiting.back();
      waiting.pop_back();
      const PlistKind kind = KindOf(place.before);
      const bool isSameKind = kind == KindOf(place.after);
      if (isSameKind && IsContainer(kind)) {
        Enter(place, kind);
      } else if (!isSameKind || !AreSameLeaves(place.before, place.after, kind)) {
        tell({PathOf(place), place.before, place.after});
      }
    }
  }

 private:
  void Enter(const Place& place, PlistKind kind) {
    entered.push_back(place);
    const size_t first = waiting.size();
    if (kind == PlistKind::kDictionary)
      AddMembers(place);
    else
      AddItems(place);
    std::reverse(waiting.begin() + static_cast<ptrdiff_t>(first), waiting.end());
  }

  void AddMembers(const Place& place) {
    const auto* before = static_cast<CFDictionaryRef>(place.before);
    const auto* after = static_cast<CFDictionaryRef>(place.after);
    for (const void* key : KeysOf(before)) {
      Add(static_cast<CFStringRef>(key), 0, CFDictionaryGetValue(before, key),
          CFDictionaryGetValue(after, key));
    }
    for (const void* key : KeysOf(after)) {
      if (CFDictionaryContainsKey(before, key)) continue;
      Add(static_cast<CFStringRef>(key), 0, nullptr, CFDictionaryGetValue(after, key));
    }
  }

  void AddItems(const Place& place) {
    const auto* before = static_cast<CFArrayRef>(place.before);
    const auto* after = static_cast<CFArrayRef>(place.after);
    const CFIndex count = std::max(CFArrayGetCount(before), CFArrayGetCount(after));
    for (CFIndex i = 0; i < count; ++i) {
      Add(nullptr, i, CFArrayGetValueAtIndex(before, i), CFArrayGetValueAtIndex(after, i));
    }
  }

  void Add(CFStringRef key, CFIndex index, CFTypeRef before, CFTypeRef after) {
    waiting.push_back({entered.size() - 1, key, index, before, after});
  }

  static std::vector<const void*> KeysOf(CFDictionaryRef dictionary) {
    std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(dictionary)));
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), nullptr);
    return keys;
  }

  std::string PathOf(const Place& place) const {
    PlistPath path;
    for (const Place* step = &place; step->container != kNone; step = &entered[step->container]) {
      path.push_back(step->key != nullptr ? TextOf(step->key) : std::to_string(step->index));
    }
    std::reverse(path.begin(), path.end());
    return PlistPathText(path);
  }

  const std::function<void(const PlistDifference&)>& tell;
  std::vector<Place> entered;  // containers
  std::vector<Place> waiting;  // the last one is next
};

}  // namespace

void DiffPlists(CFTypeRef before, CFTypeRef after,
                const std::function<void(const PlistDifference&)>& tell) {
  Comparison(tell).Run(before, after);
}

bool IsSamePlist(CFTypeRef a, CFTypeRef b) {
  if (a == b) return true;
  if (a == nullptr || b == nullptr) return false;
  bool isSame = true;
  DiffPlists(a, b, [&](const PlistDifference&) { isSame = false; });
  return isSame;
}
