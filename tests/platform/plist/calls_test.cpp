#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/host/objects/cf_array.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_dictionary.h"
#include "tests/platform/objects/support.h"
#include "tests/platform/plist/random_list.h"
#include "tests/platform/plist/support.h"

namespace {

using List = OwnedRef<CFPropertyListRef>;

OwnedRef<CFDataRef> DataOf(std::string_view bytes) {
  return CFDataCreate(nullptr, reinterpret_cast<const UInt8*>(bytes.data()),
                      static_cast<CFIndex>(bytes.size()));
}

TEST(PropertyList, ReadingAStreamGivesTheFormOrTheReason) {
  const struct {
    std::string bytes;
    CFIndex length;
    CFPropertyListFormat format;  // 0: refused
    const char* error;
  } rows[] = {{"<plist><true/></plist>", 0, kCFPropertyListXMLFormat_v1_0, ""},
              {"<true/>rest", 7, kCFPropertyListXMLFormat_v1_0, ""},
              {WriteBinary(kCFBooleanTrue), 0, kCFPropertyListBinaryFormat_v1_0, ""},
              {"{}", 0, kCFPropertyListOpenStepFormat, ""},
              {"<true/>", 8, 0, "the stream ends before the bytes that are asked for"},
              {"<plist>\n</plist>", 0, 0, "line 2, column 1: <plist> has no value in it"},
              {"bplist00", 0, 0, "byte 8: the file is too short (it may have been cut short)"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    const OwnedRef<CFReadStreamRef> stream(CFReadStreamCreateWithBytesNoCopy(
        nullptr, reinterpret_cast<const UInt8*>(row.bytes.data()),
        static_cast<CFIndex>(row.bytes.size()), kCFAllocatorNull));
    ASSERT_TRUE(CFReadStreamOpen(stream));
    CFPropertyListFormat format = -7;
    CFStringRef error = CFSTR("stale");
    const List list(CFPropertyListCreateFromStream(
        nullptr, stream, row.length, kCFPropertyListMutableContainersAndLeaves, &format, &error));
    EXPECT_EQ(row.format != 0, list != nullptr);
    EXPECT_EQ(row.format != 0 ? row.format : -7, format);
    EXPECT_EQ(row.error, error != nullptr ? TextOf(error) : "");
    CFRelease(error);
  }
  CFStringRef error = nullptr;
  EXPECT_EQ(nullptr, CFPropertyListCreateFromStream(nullptr, nullptr, 0, 0, nullptr, &error));
  EXPECT_NE(nullptr, error);
  CFRelease(error);
  EXPECT_EQ(nullptr, CFPropertyListCreateFromXMLData(nullptr, nullptr, 0, nullptr));
}

TEST(PropertyList, WritingToAStreamGivesTheNumberOfBytesOrTheReason) {
  const ReadList list("<array><string>x</string><integer>1</integer></array>");
  // `bytes`: empty: refused.
  const std::pair<CFPropertyListFormat, std::string> rows[] = {
      {kCFPropertyListXMLFormat_v1_0, WriteXML(list.Get())},
      {kCFPropertyListBinaryFormat_v1_0, WriteBinary(list.Get())},
      {kCFPropertyListOpenStepFormat, ""},
  };
  for (const auto& [format, bytes] : rows) {
    const OwnedRef<CFWriteStreamRef> stream(
        CFWriteStreamCreateWithAllocatedBuffers(nullptr, nullptr));
    ASSERT_TRUE(CFWriteStreamOpen(stream));
    CFStringRef error = nullptr;
    EXPECT_EQ(static_cast<CFIndex>(bytes.size()),
              CFPropertyListWriteToStream(list.Get(), stream, format, &error));
    EXPECT_EQ(bytes.empty(), error != nullptr);
    CFRelease(error);
    const OwnedRef<CFTypeRef> written(
        CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten));
    EXPECT_TRUE(CFEqual(DataOf(bytes), written));
  }
  const OwnedRef<CFDataRef> data(CFPropertyListCreateXMLData(nullptr, list.Get()));
  EXPECT_TRUE(CFEqual(DataOf(WriteXML(list.Get())), data));
  EXPECT_EQ(nullptr, CFPropertyListCreateXMLData(nullptr, nullptr));

  UInt8 room[100];
  const OwnedRef<CFWriteStreamRef> full(CFWriteStreamCreateWithBuffer(nullptr, room, sizeof room));
  ASSERT_TRUE(CFWriteStreamOpen(full));
  CFStringRef error = nullptr;
  EXPECT_EQ(0,
            CFPropertyListWriteToStream(list.Get(), full, kCFPropertyListXMLFormat_v1_0, &error));
  EXPECT_EQ("the bytes could not be written", TextOf(error));
  CFRelease(error);
}

TEST(PropertyList, NestsToItsLimitAndNoFurther) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"<array>", "<array/>", "</array>"}, {"(", "()", ")"}, {"{a=", "{}", ";}"}};
  for (const auto& [open, inner, close] : rows) {
    const auto nested = [&](size_t depth) {
      return Repeat(open, depth - 1) + inner + Repeat(close, depth - 1);
    };
    EXPECT_NE(nullptr, ReadList(nested(512)).Get()) << open;
    for (const size_t depth : {513, 1000000}) {
      const ReadList list(nested(depth));
      EXPECT_EQ(nullptr, list.Get()) << open;
      EXPECT_NE(std::string::npos, list.error.text.find("512")) << list.error.text;
    }
  }
}

TEST(PropertyList, RefusesEveryFileThatIsCutShort) {
  const std::string xml =
      "<?xml version='1.0'?><!DOCTYPE plist><plist><dict><key>a</key><array><string>&amp;\xC3\xA9"
      "<![CDATA[x]]></string><integer>1</integer><data>AAAA</data><true/></array></dict></plist>";
  const std::string binary = WriteBinary(ReadList(xml).Get());
  for (const std::string& whole : {xml, binary}) {
    ASSERT_NE(nullptr, ReadList(whole).Get());
    for (size_t size = whole[0] == 'b' ? 6 : 0; size < whole.size(); ++size) {  // "bplis" is text
      const ReadList list(std::string_view(whole).substr(0, size));
      EXPECT_EQ(nullptr, list.Get()) << size;
      EXPECT_FALSE(list.error.text.empty()) << size;
      EXPECT_LE(list.error.column, size + 1);
    }
  }
}

TEST(PropertyList, MutabilityAppliesToEveryContainer) {
  const OwnedRef<CFDataRef> data(DataOf("<dict><key>a</key><array/></dict>"));
  for (const CFOptionFlags mutability : {0, 1, 2}) {
    const List list(CFPropertyListCreateFromXMLData(nullptr, data, mutability, nullptr));
    const List copy(CFPropertyListCreateDeepCopy(nullptr, list, mutability));
    EXPECT_TRUE(CFEqual(list, copy));
    for (const CFTypeRef root : {CFTypeRef{list}, CFTypeRef{copy}}) {
      auto* dictionary = HostCast<HostCFDictionary>(root);
      const void* inner = CFDictionaryGetValue(dictionary, CFSTR("a"));
      EXPECT_EQ(mutability != 0, HostCast<HostCFArray>(inner)->IsMutable());
      CFDictionarySetValue(dictionary, CFSTR("b"), kCFBooleanTrue);
      EXPECT_EQ(mutability != 0 ? 2 : 1, CFDictionaryGetCount(dictionary));
    }
  }
}

TEST(PropertyList, RejectsCyclesBarePointersNonStringKeysAndDatesOutOfRange) {
  const OwnedRef<CFMutableArrayRef> itself(MutableArray()), holder(MutableArray());
  CFArrayAppendValue(itself, itself);
  CFArrayAppendValue(holder, kCFAllocatorNull);
  const OwnedRef<CFMutableArrayRef> bare(CFArrayCreateMutable(nullptr, 0, nullptr));
  CFArrayAppendValue(bare, reinterpret_cast<const void*>(uintptr_t{3}));
  const OwnedRef<CFMutableDictionaryRef> numbered(MutableDictionary());
  CFDictionarySetValue(numbered, kCFBooleanTrue, kCFBooleanTrue);
  const List late(HostCFDate::Create(1e15));
  const List never(HostCFDate::Create(std::bit_cast<double>(UINT64_MAX)));
  for (const CFTypeRef object :
       {CFTypeRef{itself}, CFTypeRef{bare}, CFTypeRef{numbered}, CFTypeRef{holder}, CFTypeRef{late},
        CFTypeRef{never}, CFTypeRef{}, CFTypeRef{kCFAllocatorNull}}) {
    EXPECT_FALSE(CFPropertyListIsValid(object, kCFPropertyListXMLFormat_v1_0));
    EXPECT_FALSE(CFPropertyListIsValid(object, kCFPropertyListBinaryFormat_v1_0));
    EXPECT_EQ('[', WriteXML(object)[0]);
    EXPECT_EQ('[', WriteBinary(object)[0]);
  }
  EXPECT_EQ(nullptr, CFPropertyListCreateDeepCopy(nullptr, itself, 1));
  CFArrayRemoveAllValues(itself);

  const ReadList number("<integer>1</integer>");
  EXPECT_FALSE(CFPropertyListIsValid(number.Get(), kCFPropertyListOpenStepFormat));
  EXPECT_TRUE(CFPropertyListIsValid(ReadList("(a, <00>)").Get(), kCFPropertyListOpenStepFormat));
  EXPECT_FALSE(CFPropertyListIsValid(number.Get(), 7));
}

void AddToChecksum(const std::string& bytes, UInt32* sum) {
  for (const char c : bytes) *sum = (*sum ^ static_cast<UInt8>(c)) * 16777619u;  // FNV-1a
}

// Every CPU architecture writes the same bytes: the checksum of all lists, as XML and as binary.
TEST(PropertyList, RandomListsSurviveBothFormsAndHaveTheirRecordedBytes) {
  UInt32 xmlSum = 2166136261u, binarySum = 2166136261u;
  for (UInt32 seed = 0; seed < 96; ++seed) {
    SCOPED_TRACE(seed);
    const List list(RandomList(seed, RandomList::Text::kAll).Value(4));
    const std::string xml = WriteXML(list), binary = WriteBinary(list);
    ASSERT_TRUE(CFEqual(list, ReadList(xml).Get())) << xml;
    ASSERT_EQ(xml, WriteXML(ReadList(binary).Get()));
    AddToChecksum(xml, &xmlSum);
    AddToChecksum(binary, &binarySum);
  }
  EXPECT_EQ(0xb6a344f0u, xmlSum);
  EXPECT_EQ(0x6c6f8c07u, binarySum);
}

}  // namespace
