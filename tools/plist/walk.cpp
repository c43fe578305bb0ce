#include "tools/plist/walk.h"

#include <utility>

bool PlistWalk::Next(PlistStep& step) {
  if (root != nullptr) {
    Enter(std::exchange(root, nullptr), nullptr, step);
    return true;
  }
  if (open.empty()) return false;
  Frame& frame = open.back();
  if (frame.next == frame.count) {
    step = {PlistStep::kClose, frame.container, frame.key, open.size() - 1};
    open.pop_back();
    return true;
  }
  const size_t index = frame.next++;
  if (frame.keys.empty()) {
    const auto* array = static_cast<CFArrayRef>(frame.container);
    Enter(CFArrayGetValueAtIndex(array, static_cast<CFIndex>(index)), nullptr, step);
  } else {
    Enter(frame.values[index], static_cast<CFStringRef>(frame.keys[index]), step);
  }
  return true;
}

void PlistWalk::Enter(CFTypeRef object, CFStringRef key, PlistStep& step) {
  step = {PlistStep::kLeaf, object, key, open.size()};
  Frame frame = {object, key, {}, {}, 0, 0};
  if (CFGetTypeID(object) == CFDictionaryGetTypeID()) {
    const auto* dictionary = static_cast<CFDictionaryRef>(object);
    frame.count = static_cast<size_t>(CFDictionaryGetCount(dictionary));
    frame.keys.resize(frame.count);
    frame.values.resize(frame.count);
    CFDictionaryGetKeysAndValues(dictionary, frame.keys.data(), frame.values.data());
  } else if (CFGetTypeID(object) == CFArrayGetTypeID()) {
    frame.count = static_cast<size_t>(CFArrayGetCount(static_cast<CFArrayRef>(object)));
  } else {
    return;
  }
  step.what = PlistStep::kOpen;
  open.push_back(std::move(frame));
}
