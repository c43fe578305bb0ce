#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <iterator>
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
  } rows[] = {
      {"<plist><true/></plist>", 0, kCFPropertyListXMLFormat_v1_0, ""},
      {"<true/>rest", 7, kCFPropertyListXMLFormat_v1_0, ""},
      {WriteBinary(kCFBooleanTrue), 0, kCFPropertyListBinaryFormat_v1_0, ""},
      {"{}", 0, kCFPropertyListOpenStepFormat, ""},
      {"<true/>", 8, 0, "the stream ends before the bytes that are asked for"},
      {"<plist>\n</plist>", 0, 0, "line 2, column 1: <plist> has no value in it"},
      {"bplist00", 0, 0, "byte 8: the file is too short (it may have been cut short)"},
  };
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
  const struct {
    CFPropertyListFormat format;
    std::string bytes;  // empty: refused
  } rows[] = {
      {kCFPropertyListXMLFormat_v1_0, WriteXML(list.Get())},
      {kCFPropertyListBinaryFormat_v1_0, WriteBinary(list.Get())},
      {kCFPropertyListOpenStepFormat, ""},
  };
  for (const auto& row : rows) {
    const OwnedRef<CFWriteStreamRef> stream(
        CFWriteStreamCreateWithAllocatedBuffers(nullptr, nullptr));
    ASSERT_TRUE(CFWriteStreamOpen(stream));
    CFStringRef error = nullptr;
    EXPECT_EQ(static_cast<CFIndex>(row.bytes.size()),
              CFPropertyListWriteToStream(list.Get(), stream, row.format, &error));
    EXPECT_EQ(row.bytes.empty(), error != nullptr);
    CFRelease(error);
    const OwnedRef<CFTypeRef> written(
        CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten));
    EXPECT_TRUE(CFEqual(DataOf(row.bytes), written));
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

UInt16 Checksum(const std::string& bytes) {
  UInt32 sum = 2166136261u;  // FNV-1a
  for (const char c : bytes) sum = (sum ^ static_cast<UInt8>(c)) * 16777619u;
  return static_cast<UInt16>(sum >> 16 ^ sum);
}

// Every CPU architecture writes the same bytes: the checksum of each list, as XML and as binary.
TEST(PropertyList, RandomListsSurviveBothFormsAndHaveTheirRecordedBytes) {
  const UInt16 recorded[][2] = {
      {0x638c, 0x5cd3}, {0xb45a, 0x9490}, {0x2e29, 0x031b}, {0x836a, 0xae6c}, {0xe9f2, 0x8279},
      {0xc5d5, 0xc54a}, {0x490c, 0xf9da}, {0xaaa6, 0x4263}, {0xc5d5, 0xc54a}, {0x092d, 0x0718},
      {0x01cd, 0xd814}, {0xc38c, 0x8732}, {0xa7b0, 0xa8f0}, {0x042c, 0x052c}, {0x3e34, 0x168c},
      {0x2572, 0x738b}, {0x092d, 0x0718}, {0xc3e8, 0x2282}, {0x7fee, 0xc28b}, {0xc5d5, 0xc54a},
      {0xeb48, 0xa9ab}, {0xca80, 0xe6ce}, {0x042c, 0x052c}, {0x0148, 0xc15c}, {0x4d98, 0xbcba},
      {0x3cde, 0xd4c5}, {0x5f16, 0x8f7c}, {0x042c, 0x052c}, {0xe36c, 0x2315}, {0x3ab7, 0x629d},
      {0xc5d5, 0xc54a}, {0x5141, 0xe9f9}, {0x042c, 0x052c}, {0x0184, 0xe178}, {0xc5d5, 0xc54a},
      {0x454b, 0x145c}, {0x5e6a, 0x72da}, {0xc3e8, 0x2282}, {0x077b, 0x774d}, {0x2cc7, 0x8106},
      {0xa2af, 0xbc73}, {0x6fe6, 0x8015}, {0xbe9e, 0x47c3}, {0x1989, 0xe598}, {0xc5d5, 0xc54a},
      {0xe8ac, 0xfc31}, {0xd81b, 0xd9a5}, {0x2616, 0xf8ca}, {0x2a62, 0xd603}, {0xb025, 0x47f0},
      {0x1b10, 0xdda4}, {0xa3a4, 0xfe3d}, {0x1602, 0x315b}, {0xbea9, 0x7a25}, {0xe9c5, 0xf9e9},
      {0x0861, 0xafb0}, {0xc3e2, 0x8dc4}, {0x042c, 0x052c}, {0xfaa2, 0xa885}, {0x8d76, 0x3f31},
      {0x0bd3, 0x19ad}, {0x0ebb, 0x88a0}, {0x46a3, 0x87da}, {0x042c, 0x052c}, {0x459b, 0xfa7b},
      {0x7738, 0x0714}, {0x625a, 0xf977}, {0x042c, 0x052c}, {0x18ee, 0x87d0}, {0x0127, 0x25ed},
      {0x4991, 0x97a2}, {0xd1a7, 0x8ce7}, {0x72cf, 0x184e}, {0xa99a, 0x01d5}, {0x3400, 0xde35},
      {0xdc32, 0xf92f}, {0x9eb6, 0xdb76}, {0x7f81, 0x8208}, {0x69fb, 0xa1b3}, {0x5a0d, 0x22e5},
      {0xb50a, 0x760e}, {0x3a57, 0x02fb}, {0x4de8, 0x897e}, {0xf44c, 0x9172}, {0x417c, 0x7cd6},
      {0xb261, 0x316f}, {0x3e1c, 0x4f29}, {0x577d, 0x046a}, {0x7667, 0x954b}, {0x707d, 0xb39d},
      {0x9da4, 0xf58c}, {0x315f, 0xf2b1}, {0xf4d9, 0x420b}, {0xc87c, 0xc699}, {0x40e3, 0xe590},
      {0x5fb5, 0x805c}};
  for (UInt32 seed = 0; seed < std::size(recorded); ++seed) {
    SCOPED_TRACE(seed);
    const List list(RandomList(seed, RandomList::Text::kAll).Value(4));
    const std::string xml = WriteXML(list), binary = WriteBinary(list);
    ASSERT_TRUE(CFEqual(list, ReadList(xml).Get())) << xml;
    ASSERT_EQ(xml, WriteXML(ReadList(binary).Get()));
    EXPECT_EQ(recorded[seed][0], Checksum(xml)) << "other bytes than recorded:\n" << xml;
    EXPECT_EQ(recorded[seed][1], Checksum(binary)) << "other bytes than recorded for\n" << xml;
  }
}

}  // namespace
