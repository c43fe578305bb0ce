#pragma once

#include <CoreFoundation/CFBase.h>

// Immutable numbers and Boolean values; any thread. A number keeps the width and kind with which it
// was made, as one of six canonical types; the other types are other names of these.

using CFBooleanRef = const struct __CFBoolean*;
using CFNumberRef = const struct __CFNumber*;

using CFNumberType = CFIndex;
enum : CFNumberType {
  kCFNumberSInt8Type = 1,
  kCFNumberSInt16Type = 2,
  kCFNumberSInt32Type = 3,
  kCFNumberSInt64Type = 4,
  kCFNumberFloat32Type = 5,
  kCFNumberFloat64Type = 6,
  kCFNumberCharType = 7,       // 1 byte, signed
  kCFNumberShortType = 8,      // 2 bytes
  kCFNumberIntType = 9,        // 4 bytes
  kCFNumberLongType = 10,      // 4 bytes: the platform's long has 32 bits on every CPU
  kCFNumberLongLongType = 11,  // 8 bytes
  kCFNumberFloatType = 12,     // 4 bytes
  kCFNumberDoubleType = 13,    // 8 bytes
  kCFNumberCFIndexType = 14,   // 4 bytes
  kCFNumberMaxType = 14,
};

#pragma GCC visibility push(default)
extern "C" {

// The two Boolean values. Retaining and releasing them has no effect. They are not numbers.
extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
CFTypeID CFBooleanGetTypeID(void);
Boolean CFBooleanGetValue(CFBooleanRef boolean);  // false for null

CFTypeID CFNumberGetTypeID(void);

// Copies the value, which need not be aligned. Null for null or a type that does not exist.
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void* value);

CFNumberType CFNumberGetType(CFNumberRef number);  // one of the canonical six; 0 for null
CFIndex CFNumberGetByteSize(CFNumberRef number);   // of the stored type; 0 for null
Boolean CFNumberIsFloatType(CFNumberRef number);

// Stores the value as `type` (as many bytes as that has, no alignment needed). True only when it is
// carried exactly: an integer in range, a fraction-free real in range as an integer, an integer or
// real that a real of that width holds without rounding; NaN is carried as NaN. False when the
// range or precision does not do: then the nearest value is stored, i.e. the end of the range for
// integers, truncated towards zero for reals as integers (NaN gives 0), rounded for reals. For null
// or a type that does not exist, false and nothing is stored.
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value);

// Compares the exact values, also of different types. NaN comes before every other number and
// equals itself. Null comes before every number. `context` is not used.
CFComparisonResult CFNumberCompare(CFNumberRef a, CFNumberRef b, void* context);

}  // extern "C"
#pragma GCC visibility pop
