#pragma once

#include <CoreFoundation/CFBase.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// The characters of property lists in XML and in the old text form. Texts are searched a word at a
// time. Pure functions with the same results on every CPU; any thread.

// A file's text as UTF-8 without byte-order mark: in place, or in a buffer of the caller.
struct HostPlistText {
  const UInt8* bytes;
  size_t count;
  bool wasUTF16 = false;
  bool isCopy = false;            // the bytes are in the buffer
  const char* problem = nullptr;  // why the text cannot be read from where it ends; may be null
};

// Obeys a byte-order mark, else takes the bytes for UTF-8, which it does not examine unless they
// begin as UTF-16 or UTF-32 does. `*converted` holds what was UTF-16: up to one and a half times
// the file.
HostPlistText HostTakePlistText(const UInt8* bytes, size_t count, std::vector<UInt8>* converted);

// Makes every line end of the text, \n, \r\n or \r, a \n, as XML demands. A text that has a \r is
// copied to `*converted` if it is not there already.
void HostNormaliseLineEnds(HostPlistText* text, std::vector<UInt8>* converted);

inline constexpr uint64_t kHostOnes = 0x0101010101010101;
inline constexpr uint64_t kHostHighs = 0x8080808080808080;

// Returns a word with the high bit set in each byte that is 0 in `word`, and perhaps in more
// significant bytes. It is 0 if no byte is 0.
inline uint64_t HostZeroBytes(uint64_t word) { return (word - kHostOnes) & ~word & kHostHighs; }

// Returns the index, by address, of the first byte that is not 0 in a word from memory.
inline size_t HostFirstByte(uint64_t word) {
  const int bits =
      std::endian::native == std::endian::little ? std::countr_zero(word) : std::countl_zero(word);
  return static_cast<size_t>(bits) / 8;
}

// Returns the first byte from `at` to `end` that is `a`, `b` or NUL, or `end` if there is none.
// Sets the top bits of `*high` if a byte before it is not ASCII; otherwise leaves it as it is.
inline const UInt8* HostFindEither(const UInt8* at, const UInt8* end, UInt8 a, UInt8 b,
                                   uint64_t* high) {
  for (uint64_t word; end - at >= static_cast<ptrdiff_t>(sizeof word); at += sizeof word) {
    std::memcpy(&word, at, sizeof word);
    const uint64_t found = HostZeroBytes(word ^ kHostOnes * a) |
                           HostZeroBytes(word ^ kHostOnes * b) | HostZeroBytes(word);
    if (found == 0) {
      *high |= word & kHostHighs;
      continue;
    }
    // The lowest mark is always right; on a big-endian host the first byte is the highest.
    if (std::endian::native != std::endian::little) break;
    const uint64_t before = (found & (0 - found)) - 1;
    *high |= word & kHostHighs & before;
    return at + HostFirstByte(found);
  }
  for (; at < end && *at != a && *at != b && *at != 0; ++at) {
    *high |= uint64_t{*at} << 56 & kHostHighs;
  }
  return at;
}

// The first byte that does not belong to well-formed UTF-8; `end` when all does.
const UInt8* HostFindBadUTF8(const UInt8* at, const UInt8* end);

// Puts a character as UTF-8 to `out`, which has room for 4 bytes; returns how many it took.
size_t HostPutUTF8(UInt32 scalar, UInt8* out);

// The lines before `at` in UTF-8 text that begins at `begin`, and the characters before it in its
// own line. Lines end with \n, \r\n or, in old files, \r.
struct HostTextPosition {
  size_t line = 0;
  size_t column = 0;
};
HostTextPosition HostFindPosition(const UInt8* begin, const UInt8* at);
