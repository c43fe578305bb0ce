#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <vector>

// One step of a walk over a property list. Its objects are borrowed from the list.
struct PlistStep {
  enum What { kLeaf, kOpen, kClose };  // a container has two steps; its members come between them

  What what = kLeaf;
  CFTypeRef object = nullptr;
  CFStringRef key = nullptr;  // in a dictionary; otherwise null
  size_t depth = 0;           // 0 for the root

  bool IsDictionary() const { return CFGetTypeID(object) == CFDictionaryGetTypeID(); }
};

// Visits a property list, which must not change, in its own order and without recursion. One
// thread.
class PlistWalk {
 public:
  explicit PlistWalk(CFTypeRef list) : root(list) {}

  bool Next(PlistStep& step);  // false after the last one

 private:
  struct Frame {
    CFTypeRef container;
    CFStringRef key;
    std::vector<const void*> keys;  // of a dictionary, and its values
    std::vector<const void*> values;
    size_t count;
    size_t next;
  };

  void Enter(CFTypeRef object, CFStringRef key, PlistStep& step);

  CFTypeRef root;  // until the first step
  std::vector<Frame> open;
};
