#pragma once

#include <CoreFoundation/CFBase.h>

// Lists of pointers, as a rule to counted objects. One class, immutable or mutable: a function that
// changes does nothing to an immutable array. Immutable arrays may be used from any thread, a
// mutable one from one thread at a time. Null is never stored: it is refused in silence, so an
// array holds what may be used without a test.

using CFArrayRef = const struct __CFArray*;
using CFMutableArrayRef = struct __CFArray*;

// The callbacks for values. Each may be null: then values are not retained, not released, described
// by address, or compared by address. The structure is copied.
struct CFArrayCallBacks {
  CFIndex version;                                                     // 0
  const void* (*retain)(CFAllocatorRef allocator, const void* value);  // returns the value to store
  void (*release)(CFAllocatorRef allocator, const void* value);
  CFStringRef (*copyDescription)(const void* value);
  Boolean (*equal)(const void* a, const void* b);
};

#pragma GCC visibility push(default)
extern "C" {

extern const CFArrayCallBacks kCFTypeArrayCallBacks;  // for counted objects

CFTypeID CFArrayGetTypeID(void);

// Makes an array. With null callbacks it holds bare pointers. Returns null if `count` is negative,
// if `values` or one of them is null, and without memory.
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
// Stores nothing unless the whole range is in the array.
void CFArrayGetValues(CFArrayRef array, CFRange range, const void** values);

// An index outside the array does nothing. For setting and inserting, the index after the last
// value is allowed.
void CFArrayAppendValue(CFMutableArrayRef array, const void* value);
void CFArrayInsertValueAtIndex(CFMutableArrayRef array, CFIndex index, const void* value);
void CFArraySetValueAtIndex(CFMutableArrayRef array, CFIndex index, const void* value);
void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index);
void CFArrayRemoveAllValues(CFMutableArrayRef array);

}  // extern "C"
#pragma GCC visibility pop
