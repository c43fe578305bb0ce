#include "platform/host/cf_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using String = HostRetained<const HostCFString>;

String Make(const char* text, CFStringEncoding encoding = kCFStringEncodingUTF8) {
  return String(CFStringCreateWithCString(kCFAllocatorDefault, text, encoding));
}

std::string TextOf(CFStringRef string) {
  char buffer[512];
  EXPECT_TRUE(CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8));
  return buffer;
}

constinit HostCFString gConstant{"constant"};

}  // namespace

TEST(CFString, CreationRefusesWhatIsNotText) {
  EXPECT_FALSE(Make("\xC3"));
  EXPECT_TRUE(Make("\xC3", kCFStringEncodingMacRoman));
  const UInt8 bytes[] = {0, 'a', 0};
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, bytes, 3, kCFStringEncodingUTF16BE, false));
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, bytes, -1, kCFStringEncodingUTF8, false));
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, nullptr, 1, kCFStringEncodingUTF8, false));
  const String empty(CFStringCreateWithBytes(nullptr, nullptr, 0, kCFStringEncodingUTF8, false));
  EXPECT_EQ(0, CFStringGetLength(empty.Get()));
  EXPECT_TRUE(CFEqual(empty.Get(), CFSTR("")));
}

TEST(CFString, EqualWhateverItWasMadeFrom) {
  const UInt8 wide[] = {0, 'c', 0, 0xE9, 0x20, 0xAC};
  const unsigned char pascal[] = {3, 'c', 0x8E, 0xDB, 'x'};
  const String strings[] = {
      Make("c\xC3\xA9\xE2\x82\xAC"),
      Make("c\x8E\xDB", kCFStringEncodingMacRoman),
      String(CFStringCreateWithBytes(nullptr, wide, 6, kCFStringEncodingUTF16BE, false)),
      String(CFStringCreateWithPascalString(nullptr, pascal, kCFStringEncodingMacRoman)),
  };
  for (const String& string : strings) {
    EXPECT_TRUE(CFEqual(strings[0].Get(), string.Get()));
    EXPECT_EQ(CFHash(strings[0].Get()), CFHash(string.Get()));
    EXPECT_EQ(3, CFStringGetLength(string.Get()));
    EXPECT_EQ(0x20AC, CFStringGetCharacterAtIndex(string.Get(), 2));
  }
  // A part of a wide text that fits one byte a unit equals the text that was so from the start.
  const String part(CFStringCreateWithSubstring(nullptr, strings[0].Get(), CFRangeMake(0, 2)));
  EXPECT_TRUE(CFEqual(part.Get(), Make("c\xC3\xA9").Get()));
  EXPECT_FALSE(CFEqual(part.Get(), strings[0].Get()));
}

TEST(CFString, ConstantsAreOnePerText) {
  EXPECT_EQ(__CFStringMakeConstantString("one"), CFSTR("one"));
  EXPECT_NE(CFSTR("one"), CFSTR("two"));
  EXPECT_TRUE(CFEqual(&gConstant, CFSTR("constant")));
  EXPECT_EQ(CFHash(&gConstant), CFHash(Make("constant").Get()));
  EXPECT_STREQ("constant", CFStringGetCStringPtr(&gConstant, kCFStringEncodingMacRoman));
  std::vector<std::thread> threads;
  std::vector<CFStringRef> made(8);
  for (CFStringRef& string : made) {
    threads.emplace_back([&string] { string = __CFStringMakeConstantString("raced"); });
  }
  for (std::thread& thread : threads) thread.join();
  for (CFStringRef string : made) EXPECT_EQ(made[0], string);
}

TEST(CFString, FailedConversionsLeaveATerminatedPrefix) {
  const struct {
    const char* text;
    CFStringEncoding encoding;
    CFIndex size;
    bool done;
    const char* result;
  } rows[] = {
      {"abc", kCFStringEncodingASCII, 3, false, "ab"},
      {"a\xE2\x82\xAC", kCFStringEncodingUTF8, 4, false, "a"},
      {"a\xE4\xB8\x80z", kCFStringEncodingMacRoman, 9, false, "a"},
      {"abc", kCFStringEncodingUnicode, 9, false, ""},
      {"abc", kCFStringEncodingInvalidId, 9, false, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << " in " << row.size);
    const String string = Make(row.text);
    std::vector<char> buffer(static_cast<size_t>(row.size), 'x');
    EXPECT_EQ(row.done, CFStringGetCString(string.Get(), buffer.data(), row.size, row.encoding));
    EXPECT_STREQ(row.result, buffer.data());

    std::vector<unsigned char> pascal(static_cast<size_t>(row.size), 'x');
    EXPECT_EQ(row.done,
              CFStringGetPascalString(string.Get(), pascal.data(), row.size, row.encoding));
    EXPECT_EQ(row.result, std::string(pascal.begin() + 1, pascal.begin() + 1 + pascal[0]));
  }
  char untouched = 'x';
  EXPECT_FALSE(CFStringGetCString(CFSTR("a"), &untouched, 0, kCFStringEncodingASCII));
  EXPECT_EQ('x', untouched);
}

TEST(CFString, APascalStringHolds255Bytes) {
  unsigned char buffer[300];
  const String fits = Make(std::string(255, 'a').c_str());
  EXPECT_TRUE(CFStringGetPascalString(fits.Get(), buffer, 256, kCFStringEncodingMacRoman));
  EXPECT_EQ(255, buffer[0]);
  const String long1 = Make(std::string(256, 'a').c_str());
  EXPECT_FALSE(CFStringGetPascalString(long1.Get(), buffer, 300, kCFStringEncodingMacRoman));
  EXPECT_EQ(255, buffer[0]);
}

TEST(CFString, WrongObjectsAndRangesAreNeutral) {
  const auto wrong = reinterpret_cast<CFStringRef>(kCFAllocatorMalloc);
  char buffer[8] = "x";
  UniChar unit = 7;
  for (CFStringRef string : {CFStringRef{nullptr}, wrong}) {
    EXPECT_EQ(0, CFStringGetLength(string));
    EXPECT_EQ(0, CFStringGetCharacterAtIndex(string, 0));
    EXPECT_FALSE(CFStringGetCString(string, buffer, 8, kCFStringEncodingASCII));
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ(nullptr, CFStringGetCStringPtr(string, kCFStringEncodingASCII));
    EXPECT_EQ(nullptr, CFStringCreateCopy(nullptr, string));
    EXPECT_EQ(nullptr, CFStringCreateWithFormat(nullptr, nullptr, string));
    EXPECT_EQ(kCFCompareLessThan, CFStringCompare(string, CFSTR("a"), 0));
  }
  const CFRange outside[] = {{-1, 1}, {0, 4}, {3, 1}, {4, 0}, {1, -1}, {INT32_MAX, INT32_MAX}};
  for (const CFRange range : outside) {
    EXPECT_EQ(nullptr, CFStringCreateWithSubstring(nullptr, CFSTR("abc"), range));
    CFStringGetCharacters(CFSTR("abc"), range, &unit);
    EXPECT_EQ(7, unit);
    CFIndex used = 7;
    EXPECT_EQ(0, CFStringGetBytes(CFSTR("abc"), range, kCFStringEncodingASCII, 0, false, nullptr, 0,
                                  &used));
    EXPECT_EQ(0, used);
  }
}

TEST(CFString, GetBytes) {
  const String string = Make("a\xC3\xA9\xE2\x82\xAC\xE4\xB8\x80");
  const struct {
    CFRange range;
    CFStringEncoding encoding;
    UInt8 lossByte;
    bool external;
    CFIndex max;
    CFIndex converted;
    std::string bytes;
  } rows[] = {
      {{0, 4}, kCFStringEncodingUTF8, 0, false, 20, 4, "a\xC3\xA9\xE2\x82\xAC\xE4\xB8\x80"},
      {{0, 4}, kCFStringEncodingMacRoman, 0, false, 20, 3, "a\x8E\xDB"},
      {{0, 4}, kCFStringEncodingMacRoman, '_', false, 20, 4, "a\x8E\xDB_"},
      {{0, 4}, kCFStringEncodingUTF8, 0, false, 5, 2, "a\xC3\xA9"},
      {{0, 1}, kCFStringEncodingUTF16BE, 0, true, 2, 1, std::string("\0a", 2)},
      {{0, 1}, kCFStringEncodingUnicode, 0, true, 1, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    UInt8 buffer[20];
    CFIndex used = -1;
    EXPECT_EQ(row.converted, CFStringGetBytes(string.Get(), row.range, row.encoding, row.lossByte,
                                              row.external, buffer, row.max, &used));
    EXPECT_EQ(row.bytes, std::string(buffer, buffer + used));
  }
  // A mark in front, in native order, and back again.
  UInt8 marked[4];
  CFIndex used = 0;
  EXPECT_EQ(
      1, CFStringGetBytes(CFSTR("a"), {0, 1}, kCFStringEncodingUnicode, 0, true, marked, 4, &used));
  UniChar mark = 0;
  memcpy(&mark, marked, 2);
  EXPECT_EQ(0xFEFF, mark);
  const String back(CFStringCreateWithBytes(nullptr, marked, used, kCFStringEncodingUTF16BE, true));
  EXPECT_TRUE(CFEqual(CFSTR("a"), back.Get()));

  EXPECT_EQ(9, CFStringGetMaximumSizeForEncoding(3, kCFStringEncodingUTF8));
  EXPECT_EQ(3, CFStringGetMaximumSizeForEncoding(3, kCFStringEncodingMacRoman));
  EXPECT_EQ(-1, CFStringGetMaximumSizeForEncoding(INT32_MAX, kCFStringEncodingUTF8));
}

TEST(CFString, BorrowedBytesNeedTheRightForm) {
  const String latin = Make("\xC3\xA9");
  EXPECT_STREQ("\xE9", CFStringGetCStringPtr(latin.Get(), kCFStringEncodingISOLatin1));
  EXPECT_EQ(nullptr, CFStringGetCStringPtr(latin.Get(), kCFStringEncodingUTF8));
  const UInt8 withZero[] = {'a', 0, 'b'};
  const String zero(CFStringCreateWithBytes(nullptr, withZero, 3, kCFStringEncodingUTF8, false));
  EXPECT_EQ(3, CFStringGetLength(zero.Get()));
  EXPECT_EQ(nullptr, CFStringGetCStringPtr(zero.Get(), kCFStringEncodingUTF8));
}

TEST(CFString, Order) {
  const struct {
    const char* a;
    const char* b;
    CFComparisonResult result;
  } rows[] = {{"", "", 0},
              {"a", "b", -1},
              {"b", "a", 1},
              {"a", "ab", -1},
              {"Z", "a", -1},
              {"ab", "a", 1},
              {"\xC3\xBF", "\xC4\x80", -1},
              {"\xC4\x80", "z", 1}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, CFStringCompare(Make(row.a).Get(), Make(row.b).Get(), 0)) << row.a;
  }
}

TEST(CFString, Formats) {
  const String accented = Make("\xC3\xA9\xE2\x82\xAC");
  const UniChar units[] = {0x20AC, 'x', 0};
  const struct {
    CFStringRef made;
    const char* text;
  } rows[] = {
#define FORMAT(...) CFStringCreateWithFormat(nullptr, nullptr, __VA_ARGS__)
      {FORMAT(CFSTR("plain 100%%")), "plain 100%"},
      {FORMAT(CFSTR("%5d|%-5d|%05d|%+d"), 42, 42, 42, 42), "   42|42   |00042|+42"},
      {FORMAT(CFSTR("%*d|%-*d|%.*f"), 4, 7, 4, 7, 2, 1.0), "   7|7   |1.00"},
      // The platform's long is 32 bits wide, whatever the caller's is.
      {FORMAT(CFSTR("%ld %lx %lu"), SInt32{-1712}, SInt32{-1712}, UInt32{4294965584u}),
       "-1712 fffff950 4294965584"},
      {FORMAT(CFSTR("%ld %lx"), static_cast<long>(-1712), static_cast<long>(-1712)),
       "-1712 fffff950"},
      {FORMAT(CFSTR("%lld %llx %qd"), SInt64{-5000000000}, UInt64{0x123456789A}, SInt64{1}),
       "-5000000000 123456789a 1"},
      {FORMAT(CFSTR("%hd %hhd %hx"), 65537, 257, -1), "1 1 ffff"},
      {FORMAT(CFSTR("%s|%6s|%-6s|%.2s"), "ab", "cd", "ef", "ghi"), "ab|    cd|ef    |gh"},
      {FORMAT(CFSTR("%s %s"), "\x8E", static_cast<char*>(nullptr)), "\xC3\xA9 (null)"},
      {FORMAT(CFSTR("%c%C%S"), 'a', 0x20AC, units), "a\xE2\x82\xAC\xE2\x82\xACx"},
      {FORMAT(CFSTR("<%@>%4@|%@"), accented.Get(), accented.Get(), nullptr),
       "<\xC3\xA9\xE2\x82\xAC>  \xC3\xA9\xE2\x82\xAC|(null)"},
#undef FORMAT
  };
  for (const auto& row : rows) {
    const String made(row.made);
    ASSERT_TRUE(made) << row.text;
    EXPECT_EQ(row.text, TextOf(made.Get()));
  }
  for (CFStringRef format : {CFSTR("%"), CFSTR("a%5"), CFSTR("%n"), CFSTR("%y"), CFSTR("%1$d")}) {
    EXPECT_EQ(nullptr, CFStringCreateWithFormat(nullptr, nullptr, format, 1)) << TextOf(format);
  }
}
