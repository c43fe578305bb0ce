#include "tools/plist/walk.h"

#include <utility>

bool PlistWalk::Next(PlistStep& step) {
  if (root != nullptr) {
    Enter(std::exchange(root, nullptr), nullptr, step);
    return true;
  }
  if (open.empty()) return false;
  Frame& frame = open.back();
  if (frame.next == frame.values.size()) {
    step = {PlistStep::kClose, frame.container, frame.key, open.size() - 1};
    open.pop_back();
    return true;
  }
  const size_t index = frame.next++;
  const auto* key = frame.keys.empty() ? nullptr : static_cast<CFStringRef>(frame.keys[index]);
  Enter(frame.values[index], key, step);
  return true;
}

void PlistWalk::Enter(CFTypeRef object, CFStringRef key, PlistStep& step) {
  step = {PlistStep::kLeaf, object, key, open.size()};
  Frame frame = {object, key, {}, {}, 0};
  if (CFGetTypeID(object) == CFDictionaryGetTypeID()) {
    const auto* dictionary = static_cast<CFDictionaryRef>(object);
    frame.keys.resize(static_cast<size_t>(CFDictionaryGetCount(dictionary)));
    frame.values.resize(frame.keys.size());
    CFDictionaryGetKeysAndValues(dictionary, frame.keys.data(), frame.values.data());
  } else if (CFGetTypeID(object) == CFArrayGetTypeID()) {
    const auto* array = static_cast<CFArrayRef>(object);
    frame.values.resize(static_cast<size_t>(CFArrayGetCount(array)));
    CFArrayGetValues(array, CFRangeMake(0, CFArrayGetCount(array)), frame.values.data());
  } else {
    return;
  }
  step.what = PlistStep::kOpen;
  open.push_back(std::move(frame));
}
