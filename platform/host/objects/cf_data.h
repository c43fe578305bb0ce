#pragma once

#include <CoreFoundation/CFData.h>

#include <cstddef>

#include "platform/host/objects/cf_object.h"

// The data object. Copied bytes stand after it in the same block; other bytes stay where they are.
// Immutable; any thread.
struct __CFData final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeData;

  // Returns a new object with a copy of the bytes, or null without memory or for more than
  // INT32_MAX bytes. The block is from `pool` unless that is null.
  static __CFData* Create(const UInt8* bytes, size_t count, HostObjectPool* pool = nullptr);
  // As above with `room` bytes that the caller fills through `*bytes`; Finish sets their number.
  // Only then may the object be passed on.
  static __CFData* CreateToFill(size_t room, UInt8** bytes, HostObjectPool* pool = nullptr);
  void Finish(size_t count) { length = static_cast<UInt32>(count); }
  // Keeps the pointer, which `deallocator` frees in the end.
  static __CFData* CreateNoCopy(const UInt8* bytes, size_t count, CFAllocatorRef deallocator);

  const UInt8* Bytes() const { return bytes; }
  size_t Length() const { return length; }

  bool Equal(const HostCFObject& other) const override;
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override;

 private:
  __CFData(const UInt8* bytes, size_t count, CFAllocatorRef deallocator)
      : HostCFObject(kClass),
        length(static_cast<UInt32>(count)),
        bytes(bytes),
        deallocator(deallocator) {}
  void LastRelease() override;

  UInt32 length;
  const UInt8* const bytes;
  const CFAllocatorRef deallocator;  // kCFAllocatorNull for bytes in the object's own block
};
using HostCFData = __CFData;
