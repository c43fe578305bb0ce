#pragma once

#include <CoreFoundation/CFString.h>

#include <cstddef>
#include <vector>

// Text in bytes <-> UTF-16 code units: Mac Roman, UTF-8, UTF-16 (native, big-, little-endian),
// ASCII, ISO Latin-1, Windows Latin-1. Pure functions, any thread. Decoding is strict: bytes that
// are not well formed are refused as a whole, nothing is replaced.

// Code units that are borrowed from somewhere: one byte each (all below U+0100) or two.
struct HostTextView {
  const UInt8* narrow = nullptr;  // null: `wide` has them
  const UniChar* wide = nullptr;
  size_t length = 0;

  UniChar At(size_t index) const { return narrow != nullptr ? narrow[index] : wide[index]; }
  // The caller has checked that the part lies inside.
  HostTextView Part(size_t from, size_t count) const {
    return {narrow != nullptr ? narrow + from : nullptr, wide != nullptr ? wide + from : nullptr,
            count};
  }
};

bool HostIsKnownEncoding(CFStringEncoding encoding);
bool HostIsASCII(const UInt8* bytes, size_t count);

// Decodes all of `bytes` into `out`, which has room for `count` code units (no encoding here needs
// more). `external`: a byte-order mark in front is obeyed and left out. False when the bytes are
// not well formed or the encoding is unknown; `out` is then undefined.
bool HostDecodeText(CFStringEncoding encoding, const UInt8* bytes, size_t count, bool external,
                    UniChar* out, size_t* units);

// Encodes as much of `text` as fits into `room` bytes at `out` (null: only counts, room ignored).
// Stops before the first character that does not fit or, with lossByte 0, has no form in the
// encoding; else lossByte stands for it. Half of a surrogate pair has no form outside UTF-16.
// Mac Roman composes a letter and a combining mark when one byte means both.
//
// Result  code units consumed; `*used` the bytes put. `*used` 0 and nothing consumed for an unknown
//         encoding.
size_t HostEncodeText(CFStringEncoding encoding, HostTextView text, UInt8 lossByte, UInt8* out,
                      size_t room, size_t* used);

// Bytes that one code unit needs at most, byte-order marks not counted; 0 for an unknown encoding.
size_t HostMaxBytesPerUnit(CFStringEncoding encoding);

// From one encoding to another, a byte-order mark in front obeyed and left out. False, with `out`
// empty, when the bytes are not well formed or a character has no form in `to`.
bool HostConvertText(CFStringEncoding from, const UInt8* bytes, size_t count, CFStringEncoding to,
                     std::vector<UInt8>& out);

UniChar HostMacRomanToUnicode(UInt8 byte);
int HostUnicodeToMacRoman(UInt32 scalar);  // the byte, or -1
