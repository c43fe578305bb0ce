#pragma once

#include <CoreFoundation/CFString.h>

#include <cstddef>
#include <vector>

// Converts text between bytes and UTF-16 code units. The encodings are Mac Roman, UTF-8, UTF-16
// (native, big-endian, little-endian), ASCII, ISO Latin-1 and Windows Latin-1. Decoding refuses
// bytes that are not well formed and replaces nothing. Pure functions, any thread.

// Borrowed code units, of one byte each (all below U+0100) or of two.
struct HostTextView {
  const UInt8* narrow = nullptr;  // null: `wide` has them
  const UniChar* wide = nullptr;
  size_t length = 0;

  UniChar At(size_t index) const { return narrow != nullptr ? narrow[index] : wide[index]; }
  // The part must lie inside.
  HostTextView Part(size_t from, size_t count) const {
    return {narrow != nullptr ? narrow + from : nullptr, wide != nullptr ? wide + from : nullptr,
            count};
  }
};

bool HostIsKnownEncoding(CFStringEncoding encoding);
bool HostIsASCII(const UInt8* bytes, size_t count);

// Decodes all of `bytes` into `out`, which has room for `count` code units; no encoding here needs
// more. With `external`, a byte-order mark at the beginning is obeyed and left out. Returns false
// if the bytes are not well formed or the encoding is unknown; `out` is then undefined.
bool HostDecodeText(CFStringEncoding encoding, const UInt8* bytes, size_t count, bool external,
                    UniChar* out, size_t* units);

// Encodes as much of `text` as fits into `room` bytes at `out`. With a null `out`, only counts and
// ignores `room`. Stops before the first character that does not fit. A character that has no form
// in the encoding becomes lossByte; if that is 0, encoding stops before the character. Half of a
// surrogate pair has no form outside UTF-16. For Mac Roman, a letter and a combining mark become
// one byte if there is one for both.
//
// Returns the number of code units that were encoded, and stores the number of bytes in `*used`.
// For an unknown encoding both are 0.
size_t HostEncodeText(CFStringEncoding encoding, HostTextView text, UInt8 lossByte, UInt8* out,
                      size_t room, size_t* used);

// Returns how many bytes a code unit needs at most, without byte-order marks; 0 for an unknown
// encoding.
size_t HostMaxBytesPerUnit(CFStringEncoding encoding);

// Converts from one encoding to another. A byte-order mark at the beginning is obeyed and left out.
// Returns false and empties `out` if the bytes are not well formed or a character has no form in
// `to`.
bool HostConvertText(CFStringEncoding from, const UInt8* bytes, size_t count, CFStringEncoding to,
                     std::vector<UInt8>& out);

UniChar HostMacRomanToUnicode(UInt8 byte);
int HostUnicodeToMacRoman(UInt32 scalar);  // returns the byte, or -1
