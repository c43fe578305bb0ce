#pragma once

#include <CoreFoundation/CFBase.h>

// Points in time, immutable; any thread.

using CFDateRef = const struct __CFDate*;

#pragma GCC visibility push(default)
extern "C" {

// Seconds from 1970-01-01 to 2001-01-01, both 00:00:00 UTC.
extern const CFTimeInterval kCFAbsoluteTimeIntervalSince1970;

CFTypeID CFDateGetTypeID(void);
CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime time);
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date);  // 0 for null

// The earlier one is less; null comes before every date. `context` is not used.
CFComparisonResult CFDateCompare(CFDateRef a, CFDateRef b, void* context);

}  // extern "C"
#pragma GCC visibility pop
