#pragma once

#include <CoreFoundation/CFArray.h>

#include <cstddef>

#include "platform/host/objects/cf_container.h"

// The array object. The values of an array that was created with some lie behind it in the same
// block; a mutable one moves them to a block of their own when it outgrows that.
struct __CFArray final : HostContainer {
  static constexpr HostTypeID kClass = kHostTypeArray;

  // An array of counted objects that takes over the caller's reference to each of `values`, none of
  // them null. One reference for the caller. On failure (no memory, more than INT32_MAX values)
  // null, and the references stay the caller's.
  static __CFArray* CreateTaking(const CFTypeRef* values, size_t count, bool isMutable,
                                 HostObjectPool* pool = nullptr);
  // An empty array with room for `room` values. Null when there is no memory.
  static __CFArray* Create(const HostItemCallbacks& callbacks, size_t room, bool isMutable);

  size_t Count() const { return count; }
  const void* const* Values() const { return values; }  // until the next change

  // Whatever isMutable says. The value is retained. False, with nothing changed, when it is null or
  // refused, when there is no memory, or for an index outside.
  bool Insert(size_t index, const void* value);
  bool Replace(size_t index, const void* value);
  bool Append(const void* value) { return Insert(count, value); }
  bool Remove(size_t index);
  void RemoveAll();

  bool NextItem(size_t& place, Item& item) const override;
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
