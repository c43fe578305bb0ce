#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <vector>

// One step of a walk over a property list. Borrowed from the list.
struct PlistStep {
  enum What { kLeaf, kOpen, kClose };  // a container has two steps, with those inside between

  What what = kLeaf;
  CFTypeRef object = nullptr;
  CFStringRef key = nullptr;  // in a dictionary; else null
  size_t depth = 0;           // 0 for the root

  bool IsDictionary() const { return CFGetTypeID(object) == CFDictionaryGetTypeID(); }
};

// Goes through a property list, which must not change, in its own order and without recursion. One
// thread.
class PlistWalk {
 public:
  explicit PlistWalk(CFTypeRef list) : root(list) {}

  bool Next(PlistStep& step);  // false behind the last one

 private:
  struct Frame {
    CFTypeRef container;
    CFStringRef key;
    std::vector<const void*> keys;  // none in an array
    std::vector<const void*> values;
    size_t next;
  };

  void Enter(CFTypeRef object, CFStringRef key, PlistStep& step);

  CFTypeRef root;  // until the first step
  std::vector<Frame> open;
};
