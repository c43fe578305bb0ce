#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstddef>

// The layout of the binary form: the eight bytes "bplist00", the objects, a table with the offset
// of each object, and a trailer of 32 bytes that describes the table. All numbers are big-endian.
// An object begins with a marker byte: its kind in the upper half, a size or count in the lower
// half. Constants only: any thread.

inline constexpr char kHostPlistMagic[] = "bplist00";
inline constexpr size_t kHostPlistMagicSize = 8;

inline constexpr size_t kHostPlistTrailerSize = 32;
inline constexpr size_t kHostPlistOffsetSizeAt = 6;   // 1 byte: bytes of a position
inline constexpr size_t kHostPlistRefSizeAt = 7;      // 1 byte: bytes of a reference
inline constexpr size_t kHostPlistObjectCountAt = 8;  // 8 bytes
inline constexpr size_t kHostPlistRootAt = 16;        // 8 bytes: index of the root
inline constexpr size_t kHostPlistTableAt = 24;       // 8 bytes: position of the table

enum HostPlistMarker : UInt8 {
  kHostPlistNull = 0x00,  // 0x00 to 0x0F: without content
  kHostPlistFalse = 0x08,
  kHostPlistTrue = 0x09,
  kHostPlistInteger = 0x10,  // + power of two of its size
  kHostPlistReal = 0x20,     // the same
  kHostPlistDate = 0x33,     // a real of 8 bytes: seconds since 2001
  kHostPlistData = 0x40,     // + count of bytes
  kHostPlistASCII = 0x50,    // + count of bytes
  kHostPlistUTF16 = 0x60,    // + count of units
  kHostPlistUID = 0x80,      // + size less 1
  kHostPlistArray = 0xA0,    // + count of references
  kHostPlistSet = 0xC0,      // the same
  kHostPlistDict = 0xD0,     // + count of pairs: references to the keys, then to the values
};
inline constexpr UInt8 kHostPlistLargeCount = 0x0F;  // the count follows as an integer object
