#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>

#include <cstddef>

#include "platform/host/objects/cf_object.h"

// What arrays and dictionaries have in common: how they treat what they hold, and the walks over
// nested ones (destroying, comparing, describing). The walks keep their place in the heap, not on
// the stack, so nesting may be of any depth. Containers that hold themselves, directly or not, are
// compared and described in finite time; they are never destroyed. Only what is a key of a key, 64
// times over, is not compared any more: it counts as different.

// How counted objects are retained and released, and strings copied.
const void* HostRetainObject(CFAllocatorRef allocator, const void* value);
const void* HostCopyString(CFAllocatorRef allocator, const void* value);  // null for all else
void HostReleaseObject(CFAllocatorRef allocator, const void* value);

// What a container does with one kind of item, as the documented records say. Functions may be
// null.
struct HostItemCallbacks {
  const void* (*retain)(CFAllocatorRef allocator, const void* value) = nullptr;
  void (*release)(CFAllocatorRef allocator, const void* value) = nullptr;
  CFStringRef (*copyDescription)(const void* value) = nullptr;
  Boolean (*equal)(const void* a, const void* b) = nullptr;
  CFHashCode (*hash)(const void* value) = nullptr;  // of keys only

  constexpr HostItemCallbacks() = default;
  template <class Documented>
  constexpr explicit HostItemCallbacks(const Documented& given)
      : retain(given.retain),
        release(given.release),
        copyDescription(given.copyDescription),
        equal(given.equal) {
    if constexpr (requires { given.hash; }) hash = given.hash;
  }
  // Null: bare pointers.
  template <class Documented>
  static HostItemCallbacks Of(const Documented* given) {
    return given != nullptr ? HostItemCallbacks(*given) : HostItemCallbacks();
  }
  bool operator==(const HostItemCallbacks&) const = default;

  // What is to be stored; null when the value is refused.
  const void* Retain(const void* value) const {
    return retain != nullptr ? retain(kCFAllocatorDefault, value) : value;
  }
  void Release(const void* value) const {
    // The usual case, known here to spare the indirect call.
    if (release == HostReleaseObject)
      static_cast<const HostCFObject*>(value)->Release();
    else if (release != nullptr)
      release(kCFAllocatorDefault, value);
  }
  bool Equal(const void* a, const void* b) const {
    return a == b || (equal != nullptr && equal(a, b));
  }
  // Whether the items are counted objects as far as comparing and describing goes.
  bool ComparesObjects() const { return equal == CFEqual; }
  bool DescribesObjects() const { return copyDescription == CFCopyDescription; }
};

inline constexpr HostItemCallbacks kHostObjects(CFDictionaryValueCallBacks{
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual});
inline constexpr HostItemCallbacks kHostObjectKeys(CFDictionaryKeyCallBacks{
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual, CFHash});

// Bytes for `count` parts of a container behind its head; 0 when there can be no such container.
size_t HostContainerSize(size_t headSize, size_t count, size_t partSize);

struct HostEqualWalk;

class HostContainer : public HostCFObject {
 public:
  bool IsMutable() const { return isMutable; }

  bool Equal(const HostCFObject& other) const final;
  CFHashCode Hash() const final;
  CFStringRef CopyDescription() const final;

  // One item after the other: `key` is null in an array. `place` begins at 0 and is not an index.
  struct Item {
    const void* key = nullptr;
    const void* value = nullptr;
  };
  virtual bool NextItem(size_t& place, Item& item) const = 0;
  virtual size_t ItemCount() const = 0;
  virtual const HostItemCallbacks& ValueCallbacks() const = 0;
  virtual const HostItemCallbacks* KeyCallbacks() const = 0;  // null in an array

  // Whether this and another container of the same class are equal as far as can be told without
  // looking into the containers inside; these are given to `walk`.
  virtual bool EqualOutside(const HostContainer& other, HostEqualWalk& walk) const = 0;

 protected:
  HostContainer(HostTypeID type, bool isMutable, bool holdsObjects)
      : HostCFObject(type), isMutable(isMutable), holdsObjects(holdsObjects) {}
  ~HostContainer() = default;

  // Releases everything inside, then frees the object itself.
  virtual void Destroy() = 0;

  // Destroys this container and, one after the other, those that die with it.
  void LastRelease() final;

  const bool isMutable : 1;
  const bool holdsObjects : 1;  // with callbacks that nobody need remember; else they lie behind it

 private:
  HostContainer* nextDying = nullptr;
};

// The container that `ref` denotes; null for other objects and null.
const HostContainer* HostCastContainer(CFTypeRef ref);

// Pairs of containers that are still to be compared.
struct HostEqualWalk {
  // Whether two items are equal, for now: a pair of containers is put off.
  virtual bool Compare(const HostItemCallbacks& callbacks, const void* a, const void* b) = 0;

 protected:
  ~HostEqualWalk() = default;
};
