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

TEST(PropertyList, ReadsStreamsAndTellsFormOrFault) {
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

TEST(PropertyList, WritesToStreams) {
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

TEST(PropertyList, MutabilityIsThatOfTheContainers) {
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

// Everything that is made of objects but is no property list.
TEST(PropertyList, KnowsWhatIsNone) {
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

// Through both forms and back; and one number for all bytes: every machine writes the same ones.
TEST(PropertyList, RandomListsSurviveBothFormsWhichAreTheSameOnEveryHost) {
  UInt64 sum = 14695981039346656037u;  // FNV-1a
  const auto add = [&sum](const std::string& bytes) {
    for (const char c : bytes) sum = (sum ^ static_cast<UInt8>(c)) * 1099511628211u;
  };
  for (UInt32 seed = 0; seed < 200; ++seed) {
    const List list(RandomList(seed, RandomList::Text::kAll).Value(5));
    const std::string xml = WriteXML(list), binary = WriteBinary(list);
    ASSERT_TRUE(CFEqual(list, ReadList(xml).Get())) << xml;
    ASSERT_EQ(xml, WriteXML(ReadList(binary).Get()));
    add(xml);
    add(binary);
  }
  EXPECT_EQ(8820086943229928717u, sum);
}

}  // namespace
