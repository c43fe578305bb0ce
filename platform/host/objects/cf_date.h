#pragma once

#include <CoreFoundation/CFDate.h>

#include "platform/host/objects/cf_object.h"

// The date object: seconds since 2001-01-01 00:00:00 UTC. Immutable; any thread.
struct __CFDate final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeDate;

  // Returns a new object, or null without memory. The block is from `pool` unless that is null.
  static __CFDate* Create(CFAbsoluteTime time, HostObjectPool* pool = nullptr);

  CFAbsoluteTime Time() const { return time; }

  bool Equal(const HostCFObject& other) const override;  // 0 equals -0, and NaN equals NaN
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override;

 private:
  explicit __CFDate(CFAbsoluteTime time) : HostCFObject(kClass), time(time) {}
  void LastRelease() override { FreeBlock(); }

  const CFAbsoluteTime time;
};
using HostCFDate = __CFDate;
