#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <cstddef>
#include <vector>

#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/key_order.h"

// HostPlistWalk visits an object and all that it contains, in the order in which they are written,
// and checks on the way that it is a property list: only the permitted classes, keys that are
// strings, no more than kHostPlistDepth levels (so that nothing contains itself), and containers
// whose callbacks are those of counted objects.
//
//   for (HostPlistWalk walk(root, order); walk.Next();) ... walk.Step() ...
//   ... walk.Fault()
//
// It retains nothing, so the list must not change during the walk. One thread.
class HostPlistWalk {
 public:
  enum class Order : UInt8 { kStored, kSorted };  // of keys; sorted is by UTF-16 code unit
  enum class Step : UInt8 { kLeaf, kOpen, kClose };

  HostPlistWalk(CFPropertyListRef root, Order order);

  // Goes to the next step. Returns false at the end and after a fault.
  bool Next();

  // The current step. Key returns the key of the object, or null in an array and for kClose.
  Step Current() const { return step; }
  const HostCFString* Key() const { return key; }
  const HostCFObject* Object() const { return object; }  // the leaf, or the container
  size_t Level() const { return level; }                 // of the object; the root's is 0

  // Returns null, or why the object is not a property list; the walk has ended then.
  const char* Fault() const { return fault; }

 private:
  struct Frame {
    const HostCFObject* container;
    size_t next;       // the index of the next item
    size_t end;        // indexes there are
    size_t firstPair;  // in `sorted`, of a sorted dictionary
  };

  bool Fail(const char* why);
  bool Enter(const HostCFObject* container);
  bool Visit(const void* item);
  bool NextPair(Frame& frame);
  void FetchAhead(size_t index) const;

  const Order order;
  Step step = Step::kLeaf;
  const HostCFString* key = nullptr;
  const HostCFObject* object = nullptr;
  size_t level = 0;
  const char* fault = nullptr;
  bool atRoot = true;
  std::vector<Frame> frames;
  std::vector<const HostPair*> sorted;  // of all dictionaries that are open
  HostKeyOrder keyOrder;
};
