#pragma once

#include <CoreFoundation/CFArray.h>

#include <cstddef>

#include "platform/host/objects/cf_container.h"

// The array object. Its first values stand after it in the same block; a mutable array that needs
// more room moves them to a block of their own. Any thread may read an array while none changes it.
struct __CFArray final : HostContainer {
  static constexpr HostTypeID kClass = kHostTypeArray;

  // Returns a new array of counted objects that takes over the caller's reference to each of
  // `values`; none may be null. Returns null for lack of memory or more than INT32_MAX values: the
  // caller keeps the references then.
  static __CFArray* CreateTaking(const CFTypeRef* values, size_t count, bool isMutable,
                                 HostObjectPool* pool = nullptr);
  // Returns an empty array with room for `room` values, or null without memory.
  static __CFArray* Create(const HostItemCallbacks& callbacks, size_t room, bool isMutable);

  size_t Count() const { return count; }
  const void* const* Values() const { return values; }  // until the next change

  // These change the array even if it is not mutable; the documented calls check that. They retain
  // the value. They return false and change nothing if the value is null or its callback refuses
  // it, without memory, and for an index outside the array.
  bool Insert(size_t index, const void* value);
  bool Replace(size_t index, const void* value);
  bool Append(const void* value) { return Insert(count, value); }
  bool Remove(size_t index);
  void RemoveAll();

  bool NextItem(size_t& position, Item& item) const override;
  size_t ItemCount() const override { return count; }
  const HostItemCallbacks& ValueCallbacks() const override {
    return holdsObjects ? kHostObjects : *reinterpret_cast<const HostItemCallbacks*>(this + 1);
  }
  const HostItemCallbacks* KeyCallbacks() const override { return nullptr; }
  bool EqualOutside(const HostContainer& other, HostEqualWalk& walk) const override;

 private:
  __CFArray(size_t room, bool isMutable, bool holdsObjects)
      : HostContainer(kClass, isMutable, holdsObjects),
        capacity(static_cast<UInt32>(room)),
        values(Inline()) {}
  static size_t HeadSize(bool holdsObjects) {
    return sizeof(__CFArray) + (holdsObjects ? 0 : sizeof(HostItemCallbacks));
  }
  static __CFArray* Make(size_t room, bool isMutable, bool holdsObjects, HostObjectPool* pool);
  void Destroy() override;
  const void** Inline() {
    return reinterpret_cast<const void**>(reinterpret_cast<UInt8*>(this) + HeadSize(holdsObjects));
  }
  bool MakeRoom();

  UInt32 count = 0;
  UInt32 capacity;
  const void** values;
};
using HostCFArray = __CFArray;
