#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>

#include <cstddef>

#include "platform/host/objects/cf_object.h"

// The common part of arrays and dictionaries: the treatment of their items, and how nested
// containers are destroyed, compared and described. This works without recursion, so containers may
// nest to any depth. Containers that contain themselves can be compared and described; they are
// never destroyed. Keys that are containers are compared to a depth of 64 and count as different
// beyond it.
//
// Any thread may read a container while none changes it.

// The callbacks of containers of counted objects.
const void* HostRetainObject(CFAllocatorRef allocator, const void* value);
const void* HostCopyString(CFAllocatorRef allocator, const void* value);  // null for all else
void HostReleaseObject(CFAllocatorRef allocator, const void* value);

// The callbacks for one kind of item, taken from a documented record. Each may be null.
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
  // Null stands for bare pointers, which are neither retained nor compared by value.
  template <class Documented>
  static HostItemCallbacks Of(const Documented* given) {
    return given != nullptr ? HostItemCallbacks(*given) : HostItemCallbacks();
  }
  bool operator==(const HostItemCallbacks&) const = default;

  // Returns what to store, or null if the callback refuses the value.
  const void* Retain(const void* value) const {
    return retain != nullptr ? retain(kCFAllocatorDefault, value) : value;
  }
  void Release(const void* value) const {
    // The usual case, without an indirect call.
    if (release == HostReleaseObject)
      static_cast<const HostCFObject*>(value)->Release();
    else if (release != nullptr)
      release(kCFAllocatorDefault, value);
  }
  bool Equal(const void* a, const void* b) const {
    return a == b || (equal != nullptr && equal(a, b));
  }
  // Whether the items are compared, or described, as counted objects.
  bool ComparesObjects() const { return equal == CFEqual; }
  bool DescribesObjects() const { return copyDescription == CFCopyDescription; }
};

inline constexpr HostItemCallbacks kHostObjects(CFDictionaryValueCallBacks{
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual});
inline constexpr HostItemCallbacks kHostObjectKeys(CFDictionaryKeyCallBacks{
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual, CFHash});

// Returns the bytes of a container's head and `count` parts, or 0 if that is too large.
size_t HostContainerSize(size_t headSize, size_t count, size_t partSize);

struct HostEqualWalk;

class HostContainer : public HostCFObject {
 public:
  bool IsMutable() const { return isMutable; }

  bool Equal(const HostCFObject& other) const final;
  CFHashCode Hash() const final;
  CFStringRef CopyDescription() const final;

  // Returns one item after the other. `key` is null in an array. `position` begins at 0 and is not
  // an index.
  struct Item {
    const void* key = nullptr;
    const void* value = nullptr;
  };
  virtual bool NextItem(size_t& position, Item& item) const = 0;
  virtual size_t ItemCount() const = 0;
  virtual const HostItemCallbacks& ValueCallbacks() const = 0;
  virtual const HostItemCallbacks* KeyCallbacks() const = 0;  // null in an array

  // Compares this with another container of the same class, except for the containers inside, which
  // are handed to `walk`.
  virtual bool EqualOutside(const HostContainer& other, HostEqualWalk& walk) const = 0;

 protected:
  HostContainer(HostTypeID type, bool isMutable, bool holdsObjects)
      : HostCFObject(type), isMutable(isMutable), holdsObjects(holdsObjects) {}
  ~HostContainer() = default;

  // Releases all items, then frees the object.
  virtual void Destroy() = 0;

  // Destroys this container and then, one after the other, those that it held last.
  void LastRelease() final;

  const bool isMutable : 1;
  const bool holdsObjects : 1;  // with the usual callbacks; else the callbacks stand after it

 private:
  HostContainer* nextDying = nullptr;
};

// Returns the container, or null for null and for other objects.
const HostContainer* HostCastContainer(CFTypeRef ref);

// Pairs of containers that are still to be compared.
struct HostEqualWalk {
  // Returns false if two items differ. A pair of containers is put aside and compared later.
  virtual bool Compare(const HostItemCallbacks& callbacks, const void* a, const void* b) = 0;

 protected:
  ~HostEqualWalk() = default;
};
