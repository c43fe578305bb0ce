#include "platform/host/base/text_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Units = std::vector<UniChar>;

const UInt8* Bytes(const std::string& text) { return reinterpret_cast<const UInt8*>(text.data()); }

// Returns the decoded units. `valid` becomes whether the bytes were valid.
Units Decode(CFStringEncoding encoding, const std::string& bytes, bool external, bool* valid) {
  Units units(bytes.size() + 1, 0xDEAD);
  size_t length = 0;
  *valid = HostDecodeText(encoding, Bytes(bytes), bytes.size(), external, units.data(), &length);
  EXPECT_EQ(0xDEAD, units[bytes.size()]);  // never more units than bytes
  units.resize(*valid ? length : 0);
  return units;
}

std::string Encode(CFStringEncoding encoding, const Units& units, UInt8 lossByte, size_t room,
                   size_t* taken) {
  std::string out(room, '\0');
  size_t used = 0;
  *taken = HostEncodeText(encoding, {nullptr, units.data(), units.size()}, lossByte,
                          reinterpret_cast<UInt8*>(out.data()), room, &used);
  out.resize(used);
  return out;
}

constexpr CFStringEncoding kRoman = kCFStringEncodingMacRoman;
constexpr CFStringEncoding kUTF8 = kCFStringEncodingUTF8;
constexpr CFStringEncoding kBig = kCFStringEncodingUTF16BE;
constexpr CFStringEncoding kLittle = kCFStringEncodingUTF16LE;

}  // namespace

TEST(TextCodec, EveryMacRomanByteSurvives) {
  for (int byte = 0; byte < 256; ++byte) {
    const UniChar unit = HostMacRomanToUnicode(static_cast<UInt8>(byte));
    EXPECT_EQ(byte, HostUnicodeToMacRoman(unit)) << byte;
  }
  const struct {
    UInt8 byte;
    UniChar unit;
  } rows[] = {{0x80, 0xC4}, {0x8E, 0xE9}, {0xBD, 0x3A9}, {0xDB, 0x20AC}, {0xF0, 0xF8FF}};
  for (const auto& row : rows) EXPECT_EQ(row.unit, HostMacRomanToUnicode(row.byte));
  EXPECT_EQ(0xBD, HostUnicodeToMacRoman(0x2126));
  EXPECT_EQ(-1, HostUnicodeToMacRoman(0xA4));
  EXPECT_EQ(-1, HostUnicodeToMacRoman(0x1F600));
}

TEST(TextCodec, DecodingRefusesBytesThatAreNotInTheEncoding) {
  const std::tuple<CFStringEncoding, std::string, bool, bool, Units> rows[] = {
      {kUTF8, "\xF0\x9F\x98\x80", false, true, {0xD83D, 0xDE00}},
      {kUTF8, std::string("a\0b", 3), false, true, {'a', 0, 'b'}},
      {kUTF8, "\xEF\xBB\xBFq", true, true, {'q'}},
      {kUTF8, "\xEF\xBB\xBFq", false, true, {0xFEFF, 'q'}},
      {kUTF8, "\xC0\x80", false, false, {}},  // overlong
      {kUTF8, "\xE0\x9F\xBF", false, false, {}},
      {kUTF8, "\xF0\x8F\xBF\xBF", false, false, {}},
      {kUTF8, "\xED\xA0\x80", false, false, {}},      // half of a pair
      {kUTF8, "\xF4\x90\x80\x80", false, false, {}},  // beyond U+10FFFF
      {kUTF8, "\x80", false, false, {}},
      {kUTF8, "\xC3", false, false, {}},  // cut
      {kUTF8, "\xC3(", false, false, {}},
      {kBig, std::string("\0a\x20\xAC", 4), false, true, {'a', 0x20AC}},
      {kLittle, std::string("a\0\xAC\x20", 4), false, true, {'a', 0x20AC}},
      {kBig, std::string("\xFF\xFE\x61\0", 4), true, true, {'a'}},  // the mark wins
      {kBig, std::string("\xD8\x3D\xDE\0x", 5), false, false, {}},  // odd
      {kBig, std::string("\xD8\x3D\0a", 4), false, false, {}},
      {kBig, std::string("\xDE\0", 2), false, false, {}},
      {kCFStringEncodingASCII, "a~", false, true, {'a', '~'}},
      {kCFStringEncodingASCII, "a\x80", false, false, {}},
      {kCFStringEncodingWindowsLatin1, "\x80\x9F\xE9", false, true, {0x20AC, 0x178, 0xE9}},
      {kCFStringEncodingWindowsLatin1, "\x81", false, false, {}},
  };
  for (const auto& [encoding, bytes, external, isValid, units] : rows) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    bool valid = false;
    EXPECT_EQ(units, Decode(encoding, bytes, external, &valid));
    EXPECT_EQ(isValid, valid);
  }
}

TEST(TextCodec, EncodingStopsAtWhatDoesNotFit) {
  const std::tuple<CFStringEncoding, Units, UInt8, size_t, size_t, std::string> rows[] = {
      {kUTF8, {0x7FF, 0x800, 0xFFFF}, 0, 9, 3, "\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
      {kUTF8, {'a', 0xD83D, 0xDE00}, 0, 10, 3, "a\xF0\x9F\x98\x80"},
      {kUTF8, {'a', 0x20AC}, 0, 3, 1, "a"},    // not half a character
      {kUTF8, {0xD83D, 0xDE00}, 0, 3, 0, ""},  // nor half a pair
      {kRoman, {'a', 0x20AC, 0x4E00, 'b'}, '?', 9, 4, "a\xDB?b"},
      {kRoman, {0xD83D, 0xDE00, 'b'}, '?', 9, 3, "?b"},  // one loss byte for a pair
      {kRoman, {'e', 0x301, 'E', 0x308, 'x', 0x301}, 0, 9, 5, "\x8E\xE8x"},
      {kBig, {'a', 0xD83D, 0xDE00}, 0, 6, 3, std::string("\0a\xD8\x3D\xDE\0", 6)},
      {kLittle, {0x20AC, 'a'}, 0, 3, 1, "\xAC\x20"},
      {kCFStringEncodingWindowsLatin1, {0x20AC, 0xE9, 0x81}, 0, 9, 2, "\x80\xE9"},
  };
  for (const auto& [encoding, units, lossByte, room, expectedTaken, bytes] : rows) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    size_t taken = 0;
    EXPECT_EQ(bytes, Encode(encoding, units, lossByte, room, &taken));
    EXPECT_EQ(expectedTaken, taken);
    size_t counted = 0;
    if (room >= 6) {
      HostEncodeText(encoding, {nullptr, units.data(), units.size()}, lossByte, nullptr, 0,
                     &counted);
      EXPECT_EQ(bytes.size(), counted);
    }
  }
}
