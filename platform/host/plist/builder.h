#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <cstddef>
#include <vector>

#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/codec.h"
#include "platform/host/plist/error.h"

// HostPlistBuilder creates the objects of a property list in the order in which a reader meets
// them: leaves and closed containers are added to the innermost open container. It keeps the items
// of open containers in a list of its own, so nothing recurses, and creates each container when it
// closes, in its final size. It charges all memory that this takes against a limit.
//
// Equal keys usually share one string: the last key with each hash is remembered. One reader, one
// thread. The destructor releases what is unfinished.
class HostPlistBuilder {
 public:
  enum class Kind : UInt8 { kArray, kDictionary };

  // The limit is `factor` times `inputSize`, the size of the file, plus 4 MiB, of which the file
  // itself is a part. `leastItem` is the usual least size of an item in the file, in bytes.
  HostPlistBuilder(size_t inputSize, size_t factor, size_t leastItem,
                   const HostPlistRequest& request);
  explicit HostPlistBuilder(CFOptionFlags mutability);  // without a limit
  ~HostPlistBuilder();
  HostPlistBuilder(const HostPlistBuilder&) = delete;
  HostPlistBuilder& operator=(const HostPlistBuilder&) = delete;

  // Returns why the last call failed: a limit, or no memory. Never null.
  const char* Problem() const { return problem; }

  bool IsInside() const { return !frames.empty(); }  // a container is open
  bool HasRoot() const { return frames.empty() && valueCount > 0; }
  bool HasDropped() const { return hasDropped; }  // a key occurred twice in a dictionary
  size_t Depth() const { return frames.size(); }
  Kind Innermost() const { return frames.back().kind; }  // of the open ones
  bool NeedsKey() const {  // a dictionary is open and a key is its next item
    return !frames.empty() && frames.back().kind == Kind::kDictionary &&
           ((valueCount - frames.back().firstValue) & 1) == 0;
  }

  // All functions below return false on failure (see Problem); the reader then gives up.

  bool Open(Kind kind);
  bool Close();  // the innermost container, in which every key must have a value

  bool AddKey(const UInt8* text, size_t count);        // ASCII; shared with equal keys
  bool AddKeyAsValue();                                // adds the last key again, as its value
  bool AddString(const UInt8* text, size_t count);     // ASCII
  bool AddInteger(bool isNegative, UInt64 magnitude);  // within -2^63 to 2^64 - 1
  bool AddReal(double value);
  bool AddDate(CFAbsoluteTime time);
  bool AddBoolean(bool value);
  bool AddData(const UInt8* bytes, size_t count);
  // Takes over the reference; null means that there was no memory for the object. `size` is its
  // size in bytes, or 0 if it was charged before.
  bool Add(const HostCFObject* taken, size_t size) {
    if (taken == nullptr) return FailForMemory();
    if (size != 0 && !Charge(BlockSize(size))) return Drop(taken);
    return Push(taken);
  }

  // Charges bytes that the reader uses itself. Returns false if the limit is exceeded.
  bool Charge(size_t bytes) {
    if (bytes > memoryLeft) return FailForSize();
    memoryLeft -= bytes;
    return true;
  }
  void Refund(size_t bytes) { memoryLeft += bytes; }

  // The pool for objects that the reader creates itself; may be null.
  HostObjectPool* Pool() { return usesPool ? &pool : nullptr; }

  // Returns the list, which the caller releases. Call it once, after HasRoot.
  CFPropertyListRef TakeRoot();

 private:
  struct Frame {
    size_t firstValue;
    Kind kind;
  };

  struct KnownKey {
    UInt32 hash = 0;
    UInt32 era = 0;          // of another era than the builder's: forgotten
    bool wasShared = false;  // lately: another key must come twice to take its place
    const HostCFString* key = nullptr;
  };

  bool Push(const HostCFObject* taken) {
    if (valueCount == valueLimit && !RaiseLimit()) return Drop(taken);
    values[valueCount++] = taken;
    return true;
  }
  // Returns the memory that a block of the heap takes, including its administration.
  static constexpr size_t BlockSize(size_t bytes) { return (bytes + 8 + 15) & ~size_t{15}; }

  [[gnu::cold]] bool Drop(const HostCFObject* taken);
  bool RaiseLimit();
  bool GrowValues();
  [[gnu::cold]] bool Fail(const char* why);
  [[gnu::cold]] bool FailForMemory() { return Fail(kHostPlistNoMemory); }
  [[gnu::cold]] bool FailForSize();

  const bool isMutable;
  const size_t keysWorthRemembering;
  const size_t firstCapacity;  // of `values`
  const bool usesPool;         // not in the smallest files: they are kept whole by one value
  size_t memoryLeft;
  const char* problem = kHostPlistNoMemory;
  HostObjectPool pool;
  std::vector<Frame> frames;
  // The items of all open containers: keys and values in turn, or values. The room is that for all
  // items a file of this size can have, so that the list never moves and leaves no freed blocks in
  // the heap. Pages that are not used take no memory and do not count.
  CFTypeRef* values = nullptr;
  size_t valueCount = 0;
  size_t valueLimit = 0;       // as many are counted
  size_t valueCapacity = 0;    // there is room for so many
  std::vector<KnownKey> keys;  // of ASCII, borrowed from the list
  UInt32 era = 1;
  bool hasDropped = false;
};
