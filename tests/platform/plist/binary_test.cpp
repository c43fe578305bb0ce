#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_string.h"
#include "tests/platform/plist/support.h"

namespace {

using namespace std::literals;

// A file of the given objects; every field of the trailer can be made to lie.
struct File {
  std::vector<std::string> objects;
  size_t offsetSize = 1;
  size_t refSize = 1;

  std::string Bytes() const {
    std::string bytes = "bplist00", table;
    for (const std::string& object : objects) {
      table += Big(bytes.size(), offsetSize);
      bytes += object;
    }
    return bytes + table + std::string(6, '\0') + Big(offsetSize, 1) + Big(refSize, 1) +
           Big(objects.size(), 8) + Big(0, 8) + Big(bytes.size(), 8);
  }
};

std::string OneObject(std::string_view object) { return File{{std::string(object)}}.Bytes(); }

TEST(PlistBinary, ReadsEveryKindAndWidth) {
  const PlistRead rows[] = {
      // objects
      {"\x08", "<false/>"},
      {"\x10\xFF", "<integer>255</integer>"},
      {"\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE", "<integer>-2</integer>"},
      {"\x14\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"sv,
       "<integer>18446744073709551615</integer>"},
      {"\x14\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
       "<integer>-1</integer>"},
      {"\x22\x3F\x80\0\0"sv, "<real>1</real>"},
      {"\x23\xBF\xB9\x99\x99\x99\x99\x99\x9A", "<real>-0.10000000000000001</real>"},
      {"\x33\xBF\xE0\0\0\0\0\0\0"sv, "<date>2000-12-31T23:59:59Z</date>"},  // half a second before
      {"\x43\0\1\2"sv, "<data>AAEC</data>"},
      {"\x5F\x11\0\3abc"sv, "<string>abc</string>"},
      {"\x61\0\xE9"sv, "<string>\xC3\xA9</string>"},
      {"\x62\xD8\x3D\xDE\0"sv, "<string>\xF0\x9F\x98\x80</string>"},
      {"\xDF\x10\0"sv, "<dict/>"},
  };
  for (const PlistRead& row : rows) {
    const std::string file = OneObject(row.text);
    ExpectRead({file, row.body}, kCFPropertyListBinaryFormat_v1_0);
  }
  // A short NaN has the same bytes on every CPU architecture afterwards.
  EXPECT_EQ(WriteBinary(ReadList("<real>nan</real>").Get()),
            WriteBinary(ReadList(OneObject("\x22\x7F\x98\x48\x7C")).Get()));
}

TEST(PlistBinary, ReadsOffsetsAndReferencesOfAnyWidth) {
  for (size_t offsetSize = 1; offsetSize <= 8; ++offsetSize) {
    for (size_t refSize = 1; refSize <= 8; ++refSize) {
      const File file = {{"\xA2" + Big(1, refSize) + Big(2, refSize), "\x51\x61",
                          "\xD1" + Big(1, refSize) + Big(3, refSize), "\x09"},
                         offsetSize,
                         refSize};
      ExpectRead(
          {file.Bytes(), "<array><string>a</string><dict><key>a</key><true/></dict></array>"},
          kCFPropertyListBinaryFormat_v1_0);
    }
  }
}

TEST(PlistBinary, RefusesFalseSizesAndPositionsWithTheirOffset) {
  const File plain = {{"\x09"}};
  const auto lie = [&](size_t fromEnd, std::string_view bytes) {
    std::string file = plain.Bytes();
    file.replace(file.size() - fromEnd, bytes.size(), bytes);
    return file;
  };
  const std::tuple<std::string, size_t, std::string_view> rows[] = {
      // The trailer, which begins at byte 10.
      {lie(26, "\0"sv), 16, "1 to 8 bytes"},
      {lie(26, "\x09"), 16, "1 to 8 bytes"},
      {lie(25, "\0"sv), 17, "1 to 8 bytes"},
      {lie(25, "\xFF"), 17, "1 to 8 bytes"},
      {lie(24, Big(0, 8)), 18, "no room"},
      {lie(24, Big(UINT64_C(1) << 61, 8)), 18, "no room"},  // wraps when it is multiplied
      {"bplist00\x09" + Big(8, 2) + std::string(6, '\0') + "\2\1" + Big(2, 8) + Big(0, 8) +
           Big(9, 8),
       19, "no room"},
      {lie(16, Big(1, 8)), 26, "no such root"},
      {lie(8, Big(0, 8)), 34, "outside of the file"},
      {lie(8, Big(10, 8)), 34, "outside of the file"},  // overlaps the trailer
      {lie(8, Big(UINT64_MAX, 8)), 34, "outside of the file"},
      {lie(33, "\x07"), 9, "outside of the objects"},
      {lie(33, "\x09"), 9, "outside of the objects"},
      {"bplist99" + plain.Bytes().substr(8), 0, "version"},
      // Objects, from byte 8 on.
      {OneObject("\0"sv), 8, "kind 0x00"},
      {OneObject("\x15" + std::string(32, 'x')), 8, "kind 0x15"},
      {OneObject("\x80\1"), 8, "archive of objects"},
      {OneObject("\x14\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv), 8, "64 bits"},
      {OneObject("\x13xxxxxxx"), 8, "longer than the file"},
      {OneObject("\x33\x7F\xF8\0\0\0\0\0\0"sv), 8, "years"},
      {OneObject("\x33\x7E\0\0\0\0\0\0\0"sv), 8, "years"},
      {OneObject("\x52x"), 8, "longer than the file"},
      {OneObject("\x51\x80"), 8, "not ASCII"},
      {OneObject("\x62xxx"), 8, "longer than the file"},
      {OneObject("\x6F\x13\x40\0\0\0\0\0\0\0"sv), 8, "longer than the file"},
      {OneObject("\x4F"), 9, "expected a count"},
      {OneObject("\x4F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"), 8, "longer than the file"},
      {OneObject("\x4F\x12x"), 8, "longer than the file"},
      {OneObject("\xAF\x13\x20\0\0\0\0\0\0\0"sv), 8, "longer than the file"},
      {OneObject("\xA1"), 8, "longer than the file"},
      {OneObject("\xD1x"), 8, "longer than the file"},
      {OneObject("\xA1\1"), 9, "no such object"},
      {OneObject("\xA1\0"sv), 9, "contains itself"},
      {File{{"\xA1\1", "\xD1\2\0"s, "\x50"}}.Bytes(), 12, "contains itself"},
      {File{{"\xD1\1\1", "\x09"}}.Bytes(), 9, "not a string"},
      {File{{"\xD1\1\2", "\xA0", "\x09"}}.Bytes(), 9, "not a string"},
      {File{{"\xA2\1\2", "\x10\5", "\xD1\1\1"}}.Bytes(), 14, "not a string"},  // known already
  };
  for (const auto& [given, offset, reason] : rows) {
    SCOPED_TRACE(testing::PrintToString(given) + " " + std::string(reason));
    const ReadList list(given);
    EXPECT_EQ(nullptr, list.Get());
    EXPECT_EQ(offset, list.error.offset);
    EXPECT_EQ(0u, list.error.line);
    EXPECT_NE(std::string::npos, list.error.text.find(reason)) << list.error.text;
  }
}

TEST(PlistBinary, FindsTheOneByteThatIsNotASCII) {
  for (size_t length = 0; length < 15; ++length) {
    const std::string text = std::string("abcdefghijklmn").substr(0, length);
    const std::string marker(1, static_cast<char>(0x50 + length));
    // The bytes after the string do not matter.
    const ReadList good(OneObject(marker + text + "\x80\x80\x80\x80\x80\x80\x80\x80"));
    EXPECT_EQ("<string>" + text + "</string>", BodyOf(good.Get()));
    for (size_t at = 0; at < length; ++at) {
      std::string bad = text;
      bad[at] = '\x80';
      EXPECT_EQ(nullptr, ReadList(OneObject(marker + bad)).Get()) << length << ", " << at;
    }
  }
}

TEST(PlistBinary, GivesEveryReferrerAContainerOfItsOwn) {
  const File file = {{"\xA2\1\1", "\xD0"}};
  const ReadList list(file.Bytes(), kCFPropertyListMutableContainers);
  const auto array = static_cast<CFArrayRef>(list.Get());
  const void* first = CFArrayGetValueAtIndex(array, 0);
  ASSERT_NE(nullptr, first);
  EXPECT_NE(first, CFArrayGetValueAtIndex(array, 1));
}

// The value of the first of two equal keys is released and referred to again.
TEST(PlistBinary, ARepeatedKeyLosesNoSharedObject) {
  const File file = {{"\xA2\1\5", "\xD2\2\3\5\4", "\x51\x61", "\x51\x61", "\x09", "\x53old"}};
  ExpectRead({file.Bytes(), "<array><dict><key>a</key><true/></dict><string>old</string></array>"},
             kCFPropertyListBinaryFormat_v1_0);
}

// Each array refers to the next one twice: 2^n of them, were they all made.
TEST(PlistBinary, SharedReferencesCannotMakeAListLargerThanItsLimit) {
  for (const size_t levels : {40, 500}) {
    File file;
    file.refSize = file.offsetSize = 2;
    for (size_t i = 1; i < levels; ++i) file.objects.push_back("\xA2" + Big(i, 2) + Big(i, 2));
    file.objects.push_back("\xA0");
    const ReadList list(file.Bytes());
    EXPECT_EQ(nullptr, list.Get());
    EXPECT_NE(std::string::npos, list.error.text.find("too much memory")) << list.error.text;
  }
}

TEST(PlistBinary, NestsToItsLimitAndNoFurther) {
  for (const size_t depth : {512, 513}) {
    File file;
    file.refSize = file.offsetSize = 2;
    for (size_t i = 1; i < depth; ++i) file.objects.push_back("\xA1" + Big(i, 2));
    file.objects.push_back("\xA0");
    EXPECT_EQ(depth <= 512, ReadList(file.Bytes()).Get() != nullptr);
  }
}

TEST(PlistBinary, WritesTheDocumentedBytes) {
  const ReadList list(
      "<dict><key>a</key><array><integer>1</integer><real>1</real><string>a</string>"
      "<integer>1</integer><integer>-1</integer><string>\xC3\xA9</string><true/><data>AAE=</data>"
      "<integer>300</integer><integer>9223372036854775808</integer></array></dict>");
  const std::string expected =
      "bplist00"
      "\xD1\x01\x02"                                  // 0
      "\x51\x61"                                      // 1
      "\xAA\x03\x04\x01\x03\x05\x06\x07\x08\x09\x0A"  // 2
      "\x10\x01"                                      // 3
      "\x23\x3F\xF0\0\0\0\0\0\0"                      // 4
      "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"          // 5
      "\x61\0\xE9"                                    // 6
      "\x09"                                          // 7
      "\x42\0\1"                                      // 8
      "\x11\x01\x2C"                                  // 9
      "\x14\0\0\0\0\0\0\0\0\x80\0\0\0\0\0\0\0"        // 10
      "\x08\x0B\x0D\x18\x1A\x23\x2C\x2F\x30\x33\x36"
      "\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x0B\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x47"s;
  EXPECT_EQ(expected, WriteBinary(list.Get()));
}

// Numbers that are equal but of another kind, and zeros of either sign, are objects of their own.
TEST(PlistBinary, WritesEqualNumbersOfDifferentKindsSeparately) {
  const std::string body =
      "<array><integer>0</integer><real>0</real><real>-0</real><date>2001-01-01T00:00:00Z</date>"
      "<false/><string></string><data></data><real>nan</real></array>";
  const ReadList list(body);
  EXPECT_EQ(body, BodyOf(ReadList(WriteBinary(list.Get())).Get()));
}

// The sizes of references and offsets grow with the list, at 256, 65536 and 2^24.
TEST(PlistBinary, WritesReferencesOfTheSizeThatIsNeeded) {
  for (const size_t count : {254, 255, 256, 65534, 65535, 65536}) {
    SCOPED_TRACE(count);
    std::string text = "<array>";
    for (size_t i = 0; i < count; ++i) text += "<integer>" + std::to_string(i) + "</integer>";
    const ReadList list(text + "</array>");
    const std::string bytes = WriteBinary(list.Get());
    EXPECT_EQ(count + 1 < 256 ? 1 : count + 1 < 65536 ? 2 : 3, bytes[bytes.size() - 25]);
    const ReadList again(bytes);
    EXPECT_TRUE(CFEqual(list.Get(), again.Get()));
  }
}

TEST(PlistBinary, CarriesNULsAndHalfSurrogatePairs) {
  for (const auto text : {std::u16string_view(u"a\0b", 3), std::u16string_view(u"\xD800x", 2)}) {
    const HostRetained<HostCFString> string(HostCFString::Create(
        HostTextView{nullptr, reinterpret_cast<const UniChar*>(text.data()), text.size()}));
    EXPECT_TRUE(CFEqual(string.Get(), ReadList(WriteBinary(string.Get())).Get()));
    EXPECT_TRUE(CFPropertyListIsValid(string.Get(), kCFPropertyListBinaryFormat_v1_0));
    EXPECT_FALSE(CFPropertyListIsValid(string.Get(), kCFPropertyListXMLFormat_v1_0));
    EXPECT_EQ('[', WriteXML(string.Get())[0]);
  }
}

}  // namespace
