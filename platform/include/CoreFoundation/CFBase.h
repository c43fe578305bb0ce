#pragma once

#include <CoreServices/MacTypes.h>

// Counted objects. *Create* and *Copy* give the caller one reference, *Get* lends one. Every
// function checks what it is given: null or an object of another class gives a neutral result (0,
// null, false), never a crash. Counts are atomic; objects that are immutable may be used from any
// thread.

using CFIndex = SInt32;
using CFTypeID = UInt32;
using CFHashCode = UInt32;
using CFOptionFlags = UInt32;
using CFTypeRef = const void*;
using CFAbsoluteTime = double;  // seconds since 2001-01-01 00:00:00 UTC
using CFTimeInterval = double;  // seconds

using CFAllocatorRef = const struct __CFAllocator*;
using CFStringRef = const struct __CFString*;
using CFMutableStringRef = struct __CFString*;

using CFComparisonResult = SInt32;
enum : CFComparisonResult {
  kCFCompareLessThan = -1,
  kCFCompareEqualTo = 0,
  kCFCompareGreaterThan = 1
};

struct CFRange {
  CFIndex location;
  CFIndex length;
};
inline CFRange CFRangeMake(CFIndex location, CFIndex length) { return {location, length}; }

#pragma GCC visibility push(default)
extern "C" {

// Allocators. Only these four exist; objects always come from the C++ heap. kCFAllocatorNull
// allocates and frees nothing: as a "bytes deallocator" it leaves the bytes alone.
#define kCFAllocatorDefault (static_cast<CFAllocatorRef>(nullptr))
extern const CFAllocatorRef kCFAllocatorSystemDefault;
extern const CFAllocatorRef kCFAllocatorMalloc;
extern const CFAllocatorRef kCFAllocatorNull;

// These use malloc and free, so bytes for a "bytes deallocator" may come from either. The allocator
// makes no difference unless it is kCFAllocatorNull. Allocating returns null for a size of 0 or
// less and without memory. `hint` is not used.
void* CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint);
void CFAllocatorDeallocate(CFAllocatorRef allocator, void* block);

CFTypeRef CFRetain(CFTypeRef object);  // its argument; null stays null
void CFRelease(CFTypeRef object);      // the last release destroys; null is ignored
CFIndex CFGetRetainCount(CFTypeRef object);
Boolean CFEqual(CFTypeRef a, CFTypeRef b);
CFHashCode CFHash(CFTypeRef object);     // equal objects have equal hashes
CFTypeID CFGetTypeID(CFTypeRef object);  // 0 for null
CFAllocatorRef CFGetAllocator(CFTypeRef object);
CFStringRef CFCopyTypeIDDescription(CFTypeID type);
CFStringRef CFCopyDescription(CFTypeRef object);

}  // extern "C"
#pragma GCC visibility pop
