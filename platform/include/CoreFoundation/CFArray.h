#pragma once

#include <CoreFoundation/CFBase.h>

// Lists of pointers, as a rule to counted objects. One class, immutable or mutable: a function that
// changes does nothing to an immutable array. Immutable arrays may be used from any thread, a
// mutable one from one thread at a time. Null is never stored: it is refused in silence, so an
// array holds what may be used without a test.

using CFArrayRef = const struct __CFArray*;
using CFMutableArrayRef = struct __CFArray*;

// What an array does with a value. Each may be null: not retained, not released, described by
// address, equal by address. The record is copied.
struct CFArrayCallBacks {
  CFIndex version;                                                     // 0
  const void* (*retain)(CFAllocatorRef allocator, const void* value);  // what is then stored
  void (*release)(CFAllocatorRef allocator, const void* value);
  CFStringRef (*copyDescription)(const void* value);
  Boolean (*equal)(const void* a, const void* b);
};

#pragma GCC visibility push(default)
extern "C" {

extern const CFArrayCallBacks kCFTypeArrayCallBacks;  // for counted objects

CFTypeID CFArrayGetTypeID(void);

// `callBacks` null: bare pointers. Null when `count` is negative, when `values` or one of them is
// null, and when there is no memory.
CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void** values, CFIndex count,
                         const CFArrayCallBacks* callBacks);
CFArrayRef CFArrayCreateCopy(CFAllocatorRef allocator, CFArrayRef array);

// `capacity` is a hint only.
CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                       const CFArrayCallBacks* callBacks);
// With the original's callbacks; the values are retained, not copied.
CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                           CFArrayRef array);

CFIndex CFArrayGetCount(CFArrayRef array);
// Borrowed: valid while the array holds it. Null outside.
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);
// Stores nothing unless the whole range lies inside.
void CFArrayGetValues(CFArrayRef array, CFRange range, const void** values);

// An index outside does nothing; one behind the last value is inside for setting and inserting.
void CFArrayAppendValue(CFMutableArrayRef array, const void* value);
void CFArrayInsertValueAtIndex(CFMutableArrayRef array, CFIndex index, const void* value);
void CFArraySetValueAtIndex(CFMutableArrayRef array, CFIndex index, const void* value);
void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index);
void CFArrayRemoveAllValues(CFMutableArrayRef array);

}  // extern "C"
#pragma GCC visibility pop
