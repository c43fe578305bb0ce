#include "platform/host/base/text_codec.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr UniChar kByteOrderMark = 0xFEFF;
constexpr UInt32 kNoScalar = 0xFFFFFFFF;
constexpr CFStringEncoding kNativeUTF16 =
    std::endian::native == std::endian::big ? kCFStringEncodingUTF16BE : kCFStringEncodingUTF16LE;

// Mac Roman, bytes 0x80 to 0xFF.
constexpr UniChar kMacRoman[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3,
    0x00E5, 0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3,
    0x00A7, 0x2022, 0x00B6, 0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA,
    0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D,
    0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1, 0x00CB, 0x00C8, 0x00CD, 0x00CE,
    0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

// Windows Latin-1, bytes 0x80 to 0x9F; 0 for a byte without a character.
constexpr UniChar kWindowsLatin1[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178,
};

// The letters that form one Mac Roman character together with a combining mark: base letters, and
// the resulting code points in the same order.
struct Composition {
  UniChar mark;
  const char* bases;
  UniChar composed[12];
};
constexpr Composition kCompositions[] = {
    {0x0300, "AEIOUaeiou", {0xC0, 0xC8, 0xCC, 0xD2, 0xD9, 0xE0, 0xE8, 0xEC, 0xF2, 0xF9}},
    {0x0301, "AEIOUaeiou", {0xC1, 0xC9, 0xCD, 0xD3, 0xDA, 0xE1, 0xE9, 0xED, 0xF3, 0xFA}},
    {0x0302, "AEIOUaeiou", {0xC2, 0xCA, 0xCE, 0xD4, 0xDB, 0xE2, 0xEA, 0xEE, 0xF4, 0xFB}},
    {0x0303, "ANOano", {0xC3, 0xD1, 0xD5, 0xE3, 0xF1, 0xF5}},
    {0x0308,
     "AEIOUYaeiouy",
     {0xC4, 0xCB, 0xCF, 0xD6, 0xDC, 0x178, 0xE4, 0xEB, 0xEF, 0xF6, 0xFC, 0xFF}},
    {0x030A, "Aa", {0xC5, 0xE5}},
    {0x0327, "Cc", {0xC7, 0xE7}},
};

struct MacRomanEntry {
  UniChar unit;
  UInt8 byte;
};

constexpr std::array<MacRomanEntry, 128> SortedMacRoman() {
  std::array<MacRomanEntry, 128> table{};
  for (size_t i = 0; i < table.size(); ++i) {
    table[i] = {kMacRoman[i], static_cast<UInt8>(0x80 + i)};
  }
  std::sort(table.begin(), table.end(),
            [](MacRomanEntry a, MacRomanEntry b) { return a.unit < b.unit; });
  return table;
}
constexpr std::array<MacRomanEntry, 128> kFromUnicode = SortedMacRoman();

bool IsHighSurrogate(UInt32 unit) { return (unit & 0xFC00) == 0xD800; }
bool IsLowSurrogate(UInt32 unit) { return (unit & 0xFC00) == 0xDC00; }
bool IsSurrogate(UInt32 unit) { return (unit & 0xF800) == 0xD800; }

UniChar ReadUnit(const UInt8* bytes, bool bigEndian) {
  return static_cast<UniChar>(bigEndian ? bytes[0] << 8 | bytes[1] : bytes[1] << 8 | bytes[0]);
}

// Reads one character's trailing bytes. Returns kNoScalar for whatever is not the shortest form of
// a character: overlong forms, surrogates, numbers above U+10FFFF, incomplete sequences.
UInt32 ReadUTF8(const UInt8* bytes, size_t count, size_t* taken) {
  const UInt8 lead = bytes[0];
  const size_t size = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  if (size == 0 || size > count) return kNoScalar;
  UInt32 scalar = lead & (0xFF >> (size + 1));
  for (size_t i = 1; i < size; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return kNoScalar;
    scalar = scalar << 6 | (bytes[i] & 0x3F);
  }
  constexpr UInt32 kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (scalar < kSmallest[size] || scalar > 0x10FFFF || IsSurrogate(scalar)) return kNoScalar;
  *taken = size;
  return scalar;
}

bool DecodeUTF8(const UInt8* bytes, size_t count, bool external, UniChar* out, size_t* units) {
  size_t at = external && count >= 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
  size_t n = 0;
  while (at < count) {
    if (bytes[at] < 0x80) {
      out[n++] = bytes[at++];
      continue;
    }
    size_t taken = 0;
    const UInt32 scalar = ReadUTF8(bytes + at, count - at, &taken);
    if (scalar == kNoScalar) return false;
    at += taken;
    if (scalar < 0x10000) {
      out[n++] = static_cast<UniChar>(scalar);
    } else {
      out[n++] = static_cast<UniChar>(0xD800 + ((scalar - 0x10000) >> 10));
      out[n++] = static_cast<UniChar>(0xDC00 + ((scalar - 0x10000) & 0x3FF));
    }
  }
  *units = n;
  return true;
}

bool DecodeUTF16(CFStringEncoding encoding, const UInt8* bytes, size_t count, bool external,
                 UniChar* out, size_t* units) {
  if (count % 2 != 0) return false;
  if (encoding == kCFStringEncodingUnicode) encoding = kNativeUTF16;
  bool bigEndian = encoding == kCFStringEncodingUTF16BE;
  size_t at = 0;
  if (external && count >= 2) {
    const bool bigMark = ReadUnit(bytes, true) == kByteOrderMark;
    if (bigMark || ReadUnit(bytes, false) == kByteOrderMark) {
      bigEndian = bigMark;
      at = 2;
    }
  }
  size_t n = 0;
  bool expectLow = false;
  for (; at < count; at += 2) {
    const UniChar unit = ReadUnit(bytes + at, bigEndian);
    if (IsLowSurrogate(unit) != expectLow) return false;
    expectLow = IsHighSurrogate(unit);
    out[n++] = unit;
  }
  *units = n;
  return !expectLow;
}

// Returns the character of a byte above 0x7F in a one-byte encoding, or kNoScalar.
UInt32 DecodeHighByte(CFStringEncoding encoding, UInt8 byte) {
  switch (encoding) {
    case kCFStringEncodingMacRoman:
      return kMacRoman[byte - 0x80];
    case kCFStringEncodingISOLatin1:
      return byte;
    case kCFStringEncodingWindowsLatin1:
      if (byte >= 0xA0) return byte;
      return kWindowsLatin1[byte - 0x80] != 0 ? kWindowsLatin1[byte - 0x80] : kNoScalar;
    default:
      return kNoScalar;
  }
}

// Returns the character at `at` and the number of its units. Half of a pair counts as a character.
UInt32 ScalarAt(HostTextView text, size_t at, size_t* taken) {
  const UInt32 unit = text.At(at);
  *taken = 1;
  if (!IsHighSurrogate(unit) || at + 1 >= text.length) return unit;
  const UInt32 low = text.At(at + 1);
  if (!IsLowSurrogate(low)) return unit;
  *taken = 2;
  return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
}

// Returns the character that a letter and the mark after it form, or kNoScalar.
UInt32 Compose(UInt32 base, UniChar mark) {
  if (mark < 0x0300 || mark > 0x0327 || base == 0 || base > 0x7F) return kNoScalar;
  for (const Composition& row : kCompositions) {
    if (row.mark != mark) continue;
    const char* found = std::strchr(row.bases, static_cast<int>(base));
    return found != nullptr ? row.composed[found - row.bases] : kNoScalar;
  }
  return kNoScalar;
}

size_t PutUTF8(UInt32 scalar, UInt8* out) {
  if (IsSurrogate(scalar)) return 0;
  if (scalar < 0x800) {
    out[0] = static_cast<UInt8>(0xC0 | scalar >> 6);
    out[1] = static_cast<UInt8>(0x80 | (scalar & 0x3F));
    return 2;
  }
  const size_t size = scalar < 0x10000 ? 3 : 4;
  for (size_t i = size - 1; i > 0; --i, scalar >>= 6) {
    out[i] = static_cast<UInt8>(0x80 | (scalar & 0x3F));
  }
  out[0] = static_cast<UInt8>((size == 3 ? 0xE0 : 0xF0) | scalar);
  return size;
}

void PutUnit(UInt32 unit, bool bigEndian, UInt8* out) {
  out[bigEndian ? 0 : 1] = static_cast<UInt8>(unit >> 8);
  out[bigEndian ? 1 : 0] = static_cast<UInt8>(unit);
}

size_t PutUTF16(UInt32 scalar, bool bigEndian, UInt8* out) {
  if (scalar < 0x10000) {
    PutUnit(scalar, bigEndian, out);
    return 2;
  }
  PutUnit(0xD800 + ((scalar - 0x10000) >> 10), bigEndian, out);
  PutUnit(0xDC00 + ((scalar - 0x10000) & 0x3FF), bigEndian, out + 2);
  return 4;
}

size_t PutByte(int byte, UInt8* out) {
  if (byte < 0) return 0;
  out[0] = static_cast<UInt8>(byte);
  return 1;
}

int WindowsLatin1Byte(UInt32 scalar) {
  if (scalar >= 0xA0 && scalar <= 0xFF) return static_cast<int>(scalar);
  const UniChar* end = std::end(kWindowsLatin1);
  const UniChar* found = std::find(std::begin(kWindowsLatin1), end, scalar);
  return found != end ? static_cast<int>(0x80 + (found - kWindowsLatin1)) : -1;
}

// Stores the bytes of a character above U+007F and returns their number, at most 4; 0 if it has no
// form in the encoding.
size_t PutScalar(CFStringEncoding encoding, UInt32 scalar, UInt8* out) {
  switch (encoding) {
    case kCFStringEncodingMacRoman:
      return PutByte(HostUnicodeToMacRoman(scalar), out);
    case kCFStringEncodingISOLatin1:
      return PutByte(scalar <= 0xFF ? static_cast<int>(scalar) : -1, out);
    case kCFStringEncodingWindowsLatin1:
      return PutByte(WindowsLatin1Byte(scalar), out);
    case kCFStringEncodingUTF8:
      return PutUTF8(scalar, out);
    case kCFStringEncodingUTF16BE:
    case kCFStringEncodingUTF16LE:
      return PutUTF16(scalar, encoding == kCFStringEncodingUTF16BE, out);
    default:
      return 0;
  }
}

bool IsUTF16(CFStringEncoding encoding) {
  return encoding == kCFStringEncodingUnicode || encoding == kCFStringEncodingUTF16BE ||
         encoding == kCFStringEncodingUTF16LE;
}

}  // namespace

bool HostIsKnownEncoding(CFStringEncoding encoding) { return HostMaxBytesPerUnit(encoding) != 0; }

bool HostIsASCII(const UInt8* bytes, size_t count) {
  size_t at = 0;
  for (; count - at >= sizeof(uint64_t); at += sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, bytes + at, sizeof word);
    if ((word & 0x8080808080808080u) != 0) return false;
  }
  UInt8 rest = 0;
  for (; at < count; ++at) rest |= bytes[at];
  return rest < 0x80;
}

bool HostDecodeText(CFStringEncoding encoding, const UInt8* bytes, size_t count, bool external,
                    UniChar* out, size_t* units) {
  if (!HostIsKnownEncoding(encoding)) return false;
  if (encoding == kCFStringEncodingUTF8) return DecodeUTF8(bytes, count, external, out, units);
  if (IsUTF16(encoding)) return DecodeUTF16(encoding, bytes, count, external, out, units);
  for (size_t i = 0; i < count; ++i) {
    const UInt32 scalar = bytes[i] < 0x80 ? bytes[i] : DecodeHighByte(encoding, bytes[i]);
    if (scalar == kNoScalar) return false;
    out[i] = static_cast<UniChar>(scalar);
  }
  *units = count;
  return true;
}

size_t HostEncodeText(CFStringEncoding encoding, HostTextView text, UInt8 lossByte, UInt8* out,
                      size_t room, size_t* used) {
  *used = 0;
  if (!HostIsKnownEncoding(encoding)) return 0;
  if (encoding == kCFStringEncodingUnicode) encoding = kNativeUTF16;
  const bool oneByteASCII = !IsUTF16(encoding);
  const bool composes = encoding == kCFStringEncodingMacRoman && text.narrow == nullptr;
  if (out == nullptr) room = SIZE_MAX;

  size_t at = 0;
  while (at < text.length) {
    size_t taken = 1;
    UInt32 scalar = ScalarAt(text, at, &taken);
    if (composes && at + 1 < text.length) {
      if (UInt32 composed = Compose(scalar, text.At(at + 1)); composed != kNoScalar) {
        scalar = composed;
        taken = 2;
      }
    }
    UInt8 bytes[4] = {static_cast<UInt8>(scalar)};
    size_t size = 1;
    if (scalar >= 0x80 || !oneByteASCII) size = PutScalar(encoding, scalar, bytes);
    if (size == 0 && lossByte != 0) size = PutByte(lossByte, bytes);
    if (size == 0 || size > room - *used) break;
    if (out != nullptr) std::memcpy(out + *used, bytes, size);
    *used += size;
    at += taken;
  }
  return at;
}

size_t HostMaxBytesPerUnit(CFStringEncoding encoding) {
  switch (encoding) {
    case kCFStringEncodingMacRoman:
    case kCFStringEncodingISOLatin1:
    case kCFStringEncodingWindowsLatin1:
    case kCFStringEncodingASCII:
      return 1;
    case kCFStringEncodingUnicode:
    case kCFStringEncodingUTF16BE:
    case kCFStringEncodingUTF16LE:
      return 2;
    case kCFStringEncodingUTF8:
      return 3;
    default:
      return 0;
  }
}

bool HostConvertText(CFStringEncoding from, const UInt8* bytes, size_t count, CFStringEncoding to,
                     std::vector<UInt8>& out) {
  out.clear();
  std::vector<UniChar> units(count);
  size_t length = 0;
  if (!HostDecodeText(from, bytes, count, true, units.data(), &length)) return false;
  const HostTextView text = {nullptr, units.data(), length};
  out.resize(length * HostMaxBytesPerUnit(to));
  size_t used = 0;
  const bool all = HostEncodeText(to, text, 0, out.data(), out.size(), &used) == length;
  out.resize(all ? used : 0);
  return all && HostIsKnownEncoding(to);
}

UniChar HostMacRomanToUnicode(UInt8 byte) { return byte < 0x80 ? byte : kMacRoman[byte - 0x80]; }

int HostUnicodeToMacRoman(UInt32 scalar) {
  if (scalar < 0x80) return static_cast<int>(scalar);
  if (scalar == 0x2126) scalar = 0x03A9;  // the ohm sign shares the byte of the letter omega
  const auto found =
      std::lower_bound(kFromUnicode.begin(), kFromUnicode.end(), scalar,
                       [](MacRomanEntry entry, UInt32 wanted) { return entry.unit < wanted; });
  return found != kFromUnicode.end() && found->unit == scalar ? found->byte : -1;
}
