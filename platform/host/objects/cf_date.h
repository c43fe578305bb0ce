#pragma once

#include <CoreFoundation/CFDate.h>

#include "platform/host/objects/cf_object.h"

// The date object: seconds since 2001-01-01 00:00:00 UTC. Immutable; any thread.
struct __CFDate final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeDate;

  // One reference for the caller; null when there is no memory. The block is from `pool` unless
  // that is null.
  static __CFDate* Create(CFAbsoluteTime time, HostObjectPool* pool = nullptr);

  CFAbsoluteTime Time() const { return time; }

  bool Equal(const HostCFObject& other) const override;  // -0 and 0 are one time, so is NaN itself
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override;

 private:
  explicit __CFDate(CFAbsoluteTime time) : HostCFObject(kClass), time(time) {}
  void LastRelease() override { FreeBlock(); }

  const CFAbsoluteTime time;
};
using HostCFDate = __CFDate;
