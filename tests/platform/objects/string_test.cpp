#include "platform/host/objects/cf_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/objects/support.h"

namespace {

using Text = OwnedRef<CFStringRef>;

constinit HostCFString gConstant{"constant"};

}  // namespace

TEST(CFString, CreationRefusesBytesThatAreNotInTheEncoding) {
  EXPECT_EQ(nullptr, String("\xC3"));
  const UInt8 bytes[] = {0, 'a', 0};
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, bytes, 3, kCFStringEncodingUTF16BE, false));
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, bytes, -1, kCFStringEncodingUTF8, false));
  EXPECT_EQ(nullptr, CFStringCreateWithBytes(nullptr, nullptr, 1, kCFStringEncodingUTF8, false));
  const Text empty(CFStringCreateWithBytes(nullptr, nullptr, 0, kCFStringEncodingUTF8, false));
  EXPECT_EQ(0, CFStringGetLength(empty));
  EXPECT_TRUE(CFEqual(empty, CFSTR("")));
}

TEST(CFString, EqualWhateverItWasMadeFrom) {
  const UInt8 wide[] = {0, 'c', 0, 0xE9, 0x20, 0xAC};
  const unsigned char pascal[] = {3, 'c', 0x8E, 0xDB, 'x'};
  const Text strings[] = {
      String("c\xC3\xA9\xE2\x82\xAC"),
      CFStringCreateWithCString(nullptr, "c\x8E\xDB", kCFStringEncodingMacRoman),
      CFStringCreateWithBytes(nullptr, wide, 6, kCFStringEncodingUTF16BE, false),
      CFStringCreateWithPascalString(nullptr, pascal, kCFStringEncodingMacRoman),
  };
  for (const Text& string : strings) {
    EXPECT_TRUE(CFEqual(strings[0], string));
    EXPECT_EQ(CFHash(strings[0]), CFHash(string));
    EXPECT_EQ(3, CFStringGetLength(string));
    EXPECT_EQ(0x20AC, CFStringGetCharacterAtIndex(string, 2));
  }
  // A part of a wide text that fits one byte a unit equals the text that was so from the start.
  const Text part(CFStringCreateWithSubstring(nullptr, strings[0], CFRangeMake(0, 2)));
  EXPECT_TRUE(CFEqual(part, String("c\xC3\xA9")));
  EXPECT_FALSE(CFEqual(part, strings[0]));
}

TEST(CFString, CFSTRGivesOneObjectForEachText) {
  EXPECT_EQ(__CFStringMakeConstantString("one"), CFSTR("one"));
  EXPECT_NE(CFSTR("one"), CFSTR("two"));
  EXPECT_TRUE(CFEqual(&gConstant, CFSTR("constant")));
  EXPECT_EQ(CFHash(&gConstant), CFHash(String("constant")));
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
  const std::tuple<const char*, CFStringEncoding, CFIndex, bool, const char*> rows[] = {
      {"abc", kCFStringEncodingASCII, 3, false, "ab"},
      {"a\xE2\x82\xAC", kCFStringEncodingUTF8, 4, false, "a"},
      {"a\xE4\xB8\x80z", kCFStringEncodingMacRoman, 9, false, "a"},
      {"abc", kCFStringEncodingInvalidId, 9, false, ""},
  };
  for (const auto& [text, encoding, size, done, result] : rows) {
    SCOPED_TRACE(testing::Message() << text << " in " << size);
    const Text string = String(text);
    std::vector<char> buffer(static_cast<size_t>(size), 'x');
    EXPECT_EQ(done, CFStringGetCString(string, buffer.data(), size, encoding));
    EXPECT_STREQ(result, buffer.data());

    std::vector<unsigned char> pascal(static_cast<size_t>(size), 'x');
    EXPECT_EQ(done, CFStringGetPascalString(string, pascal.data(), size, encoding));
    EXPECT_EQ(result, std::string(pascal.begin() + 1, pascal.begin() + 1 + pascal[0]));
  }
  unsigned char pascal[300];
  const Text tooLong(String(std::string(256, 'a')));
  EXPECT_FALSE(CFStringGetPascalString(tooLong, pascal, 300, kCFStringEncodingMacRoman));
  EXPECT_EQ(255, pascal[0]);
}

TEST(CFString, WrongObjectsAndRangesAreNeutral) {
  const auto wrong = reinterpret_cast<CFStringRef>(kCFAllocatorMalloc);
  char buffer[8] = "x";
  UniChar unit = 7;
  for (CFStringRef string : {CFStringRef{nullptr}, wrong}) {
    EXPECT_EQ(0, CFStringGetLength(string));
    EXPECT_FALSE(CFStringGetCString(string, buffer, 8, kCFStringEncodingASCII));
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ(nullptr, CFStringCreateWithFormat(nullptr, nullptr, string));
    EXPECT_EQ(kCFCompareLessThan, CFStringCompare(string, CFSTR("a"), 0));
  }
  const CFRange outside[] = {{-1, 1}, {0, 4}, {3, 1}, {4, 0}, {1, -1}, {INT32_MAX, INT32_MAX}};
  for (const CFRange range : outside) {
    EXPECT_EQ(nullptr, CFStringCreateWithSubstring(nullptr, CFSTR("abc"), range));
    CFStringGetCharacters(CFSTR("abc"), range, &unit);
    EXPECT_EQ(7, unit);
  }
}

TEST(CFString, GetBytesStopsBeforeWhatDoesNotFitOrHasNoForm) {
  const Text string = String("a\xC3\xA9\xE2\x82\xAC\xE4\xB8\x80");
  const std::tuple<CFRange, CFStringEncoding, UInt8, bool, CFIndex, CFIndex, std::string> rows[] = {
      {{0, 4}, kCFStringEncodingUTF8, 0, false, 20, 4, "a\xC3\xA9\xE2\x82\xAC\xE4\xB8\x80"},
      {{0, 4}, kCFStringEncodingMacRoman, 0, false, 20, 3, "a\x8E\xDB"},
      {{0, 4}, kCFStringEncodingMacRoman, '_', false, 20, 4, "a\x8E\xDB_"},
      {{0, 4}, kCFStringEncodingUTF8, 0, false, 5, 2, "a\xC3\xA9"},
      {{0, 1}, kCFStringEncodingUTF16BE, 0, true, 2, 1, std::string("\0a", 2)},
      {{0, 1}, kCFStringEncodingUnicode, 0, true, 1, 0, ""},
  };
  for (const auto& [range, encoding, lossByte, external, max, converted, bytes] : rows) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    UInt8 buffer[20];
    CFIndex used = -1;
    EXPECT_EQ(converted,
              CFStringGetBytes(string, range, encoding, lossByte, external, buffer, max, &used));
    EXPECT_EQ(bytes, std::string(buffer, buffer + used));
  }
  // A mark in front, in native order, and back again.
  UInt8 marked[4];
  CFIndex used = 0;
  EXPECT_EQ(
      1, CFStringGetBytes(CFSTR("a"), {0, 1}, kCFStringEncodingUnicode, 0, true, marked, 4, &used));
  UniChar mark = 0;
  memcpy(&mark, marked, 2);
  EXPECT_EQ(0xFEFF, mark);
  const Text back(CFStringCreateWithBytes(nullptr, marked, used, kCFStringEncodingUTF16BE, true));
  EXPECT_TRUE(CFEqual(CFSTR("a"), back));

  EXPECT_EQ(9, CFStringGetMaximumSizeForEncoding(3, kCFStringEncodingUTF8));
  EXPECT_EQ(-1, CFStringGetMaximumSizeForEncoding(INT32_MAX, kCFStringEncodingUTF8));
}

TEST(CFString, BorrowedBytesNeedTheRightForm) {
  const Text latin = String("\xC3\xA9");
  EXPECT_STREQ("\xE9", CFStringGetCStringPtr(latin, kCFStringEncodingISOLatin1));
  EXPECT_EQ(nullptr, CFStringGetCStringPtr(latin, kCFStringEncodingUTF8));
  const UInt8 withZero[] = {'a', 0, 'b'};
  const Text zero(CFStringCreateWithBytes(nullptr, withZero, 3, kCFStringEncodingUTF8, false));
  EXPECT_EQ(3, CFStringGetLength(zero));
  EXPECT_EQ(nullptr, CFStringGetCStringPtr(zero, kCFStringEncodingUTF8));
}

TEST(CFString, CompareOrdersByCodeUnitAndPrefixesFirst) {
  EXPECT_EQ(kCFCompareEqualTo, CFStringCompare(CFSTR(""), String(""), 0));
  const char* const ascending[] = {"", "Z", "a", "ab", "b", "\xC3\xBF", "\xC4\x80"};
  for (size_t i = 1; i < std::size(ascending); ++i) {
    const Text before = String(ascending[i - 1]), after = String(ascending[i]);
    EXPECT_EQ(kCFCompareLessThan, CFStringCompare(before, after, 0)) << i;
    EXPECT_EQ(kCFCompareGreaterThan, CFStringCompare(after, before, 0)) << i;
  }
}

TEST(CFString, FormatsIntegersRealsTextAndObjects) {
  const Text held = String("\xC3\xA9\xE2\x82\xAC");
  const CFStringRef accented = held;
  const UniChar units[] = {0x20AC, 'x', 0};
  const std::pair<CFStringRef, const char*> rows[] = {
#define FORMAT(...) CFStringCreateWithFormat(nullptr, nullptr, __VA_ARGS__)
      {FORMAT(CFSTR("%5d|%-5d|%05d|%+d%%"), 42, 42, 42, 42), "   42|42   |00042|+42%"},
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
      {FORMAT(CFSTR("<%@>%4@|%@"), accented, accented, nullptr),
       "<\xC3\xA9\xE2\x82\xAC>  \xC3\xA9\xE2\x82\xAC|(null)"},
#undef FORMAT
  };
  for (const auto& [string, text] : rows) {
    const Text made(string);
    ASSERT_NE(nullptr, made) << text;
    EXPECT_EQ(text, TextOf(made));
  }
  for (CFStringRef format : {CFSTR("%"), CFSTR("a%5"), CFSTR("%n"), CFSTR("%y"), CFSTR("%1$d")}) {
    EXPECT_EQ(nullptr, CFStringCreateWithFormat(nullptr, nullptr, format, 1)) << TextOf(format);
  }
}
