#pragma once

#include <stdint.h>

#ifndef VLT_SOURCE_TREE
// Tells the library which installation a program was compiled against, so that the program finds
// what else that one contains. Each source that includes this file defines it alike.
extern "C" {
extern const char kVLTHeaderFile[] __attribute__((weak, visibility("default")));
const char kVLTHeaderFile[] = __FILE__;
}
#endif

// Base types of the platform, with their documented widths. Where the platform says `long` or
// `unsigned long`, the width is 32 bits on every CPU; a C++ `long` of 64 bits is never part of a
// structure, a descriptor or a frame.

using UInt8 = uint8_t;
using SInt8 = int8_t;
using UInt16 = uint16_t;
using SInt16 = int16_t;
using UInt32 = uint32_t;
using SInt32 = int32_t;
using UInt64 = uint64_t;
using SInt64 = int64_t;

using Boolean = unsigned char;  // 0 or 1
using OSErr = SInt16;           // 0 is success
using OSStatus = SInt32;        // 0 is success

// Four-character codes are values: the first character is the most significant byte.
using FourCharCode = UInt32;
using OSType = FourCharCode;
using ResType = FourCharCode;

using Size = SInt32;       // bytes
using ByteCount = UInt32;  // bytes
using ItemCount = UInt32;
using OptionBits = UInt32;
using Duration = SInt32;  // > 0 milliseconds, < 0 microseconds of the absolute value
using Fixed = SInt32;     // 16.16
using UnsignedFixed = UInt32;
using Fract = SInt32;  // 2.30
using ScriptCode = SInt16;
using UniChar = UInt16;  // one UTF-16 code unit
using UniCharCount = UInt32;

using Ptr = char*;
using Handle = char**;  // pointer to a master pointer

// Length-prefixed strings: the length byte, then up to 255 characters.
using StringPtr = unsigned char*;
using ConstStringPtr = const unsigned char*;
using ConstStr255Param = const unsigned char*;
using ConstStr63Param = const unsigned char*;
using Str255 = unsigned char[256];
using Str63 = unsigned char[64];
using Str31 = unsigned char[32];

// Two words. Combine them by arithmetic, not by reading both as one number from memory.
struct UnsignedWide {
  UInt32 hi;
  UInt32 lo;
};
using AbsoluteTime = UnsignedWide;
using Nanoseconds = UnsignedWide;

struct ProcessSerialNumber {
  UInt32 highLongOfPSN;
  UInt32 lowLongOfPSN;
};

enum : ScriptCode { smSystemScript = -1, smRoman = 0 };

// Returns four characters as a number, such as FourCC('a', 'e', 'v', 't'), the same on every CPU.
constexpr FourCharCode FourCC(char a, char b, char c, char d) {
  return (FourCharCode{static_cast<UInt8>(a)} << 24) | (FourCharCode{static_cast<UInt8>(b)} << 16) |
         (FourCharCode{static_cast<UInt8>(c)} << 8) | FourCharCode{static_cast<UInt8>(d)};
}
