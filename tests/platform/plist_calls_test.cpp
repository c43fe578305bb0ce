#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/host/cf_array.h"
#include "platform/host/cf_date.h"
#include "platform/host/cf_dictionary.h"
#include "platform/host/cf_string.h"
#include "tests/platform/plist_random.h"
#include "tests/platform/plist_support.h"

namespace {

// One reference to any object, released at the end.
class Held {
 public:
  explicit Held(CFTypeRef taken) : object(taken) {}
  ~Held() { CFRelease(object); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  CFTypeRef Get() const { return object; }

 private:
  const CFTypeRef object;
};

std::string TextOf(CFStringRef string) {
  char text[256] = "";
  CFStringGetCString(string, text, sizeof text, kCFStringEncodingUTF8);
  return text;
}

CFDataRef DataOf(std::string_view bytes) {
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
      {"", 0, 0, "line 1, column 1: there is nothing in the file"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    CFReadStreamRef stream =
        CFReadStreamCreateWithBytesNoCopy(nullptr, reinterpret_cast<const UInt8*>(row.bytes.data()),
                                          static_cast<CFIndex>(row.bytes.size()), kCFAllocatorNull);
    const Held keeper(stream);
    ASSERT_TRUE(CFReadStreamOpen(stream));
    CFPropertyListFormat format = -7;
    CFStringRef error = CFSTR("stale");
    const Held list(CFPropertyListCreateFromStream(
        nullptr, stream, row.length, kCFPropertyListMutableContainersAndLeaves, &format, &error));
    EXPECT_EQ(row.format != 0, list.Get() != nullptr);
    EXPECT_EQ(row.format != 0 ? row.format : -7, format);
    EXPECT_EQ(row.error, TextOf(error));
    CFRelease(error);
  }
}

TEST(PropertyList, RefusesWhatIsNoStreamAndNoData) {
  CFStringRef error = nullptr;
  EXPECT_EQ(nullptr, CFPropertyListCreateFromStream(nullptr, nullptr, 0, 0, nullptr, &error));
  EXPECT_NE(nullptr, error);
  CFRelease(error);
  EXPECT_EQ(nullptr, CFPropertyListCreateFromXMLData(nullptr, nullptr, 0, nullptr));
  const Held data(DataOf("<true/>"));
  EXPECT_EQ(kCFBooleanTrue, CFPropertyListCreateFromXMLData(
                                nullptr, static_cast<CFDataRef>(data.Get()), 0, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(nullptr, CFPropertyListCreateXMLData(nullptr, nullptr));
  EXPECT_EQ(nullptr, CFPropertyListCreateXMLData(nullptr, kCFAllocatorNull));
  EXPECT_EQ(0, CFPropertyListWriteToStream(kCFBooleanTrue, nullptr, kCFPropertyListXMLFormat_v1_0,
                                           nullptr));
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
      {7, ""},
  };
  for (const auto& row : rows) {
    CFWriteStreamRef stream = CFWriteStreamCreateWithAllocatedBuffers(nullptr, nullptr);
    const Held keeper(stream);
    ASSERT_TRUE(CFWriteStreamOpen(stream));
    CFStringRef error = nullptr;
    EXPECT_EQ(static_cast<CFIndex>(row.bytes.size()),
              CFPropertyListWriteToStream(list.Get(), stream, row.format, &error));
    EXPECT_EQ(row.bytes.empty(), error != nullptr);
    CFRelease(error);
    const Held written(CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten));
    const Held expected(DataOf(row.bytes));
    EXPECT_TRUE(CFEqual(expected.Get(), written.Get()));
  }
  const Held data(CFPropertyListCreateXMLData(nullptr, list.Get()));
  const Held expected(DataOf(WriteXML(list.Get())));
  EXPECT_TRUE(CFEqual(expected.Get(), data.Get()));
}

TEST(PropertyList, FullStreamsFail) {
  const ReadList list("<string>x</string>");
  UInt8 room[100];
  CFWriteStreamRef stream = CFWriteStreamCreateWithBuffer(nullptr, room, sizeof room);
  const Held keeper(stream);
  ASSERT_TRUE(CFWriteStreamOpen(stream));
  CFStringRef error = nullptr;
  EXPECT_EQ(0,
            CFPropertyListWriteToStream(list.Get(), stream, kCFPropertyListXMLFormat_v1_0, &error));
  EXPECT_EQ("the bytes could not be written", TextOf(error));
  CFRelease(error);
}

TEST(PropertyList, MutabilityIsThatOfTheContainers) {
  const Held data(DataOf("<dict><key>a</key><array/></dict>"));
  for (const CFOptionFlags mutability : {0, 1, 2}) {
    const Held list(CFPropertyListCreateFromXMLData(nullptr, static_cast<CFDataRef>(data.Get()),
                                                    mutability, nullptr));
    const Held copy(CFPropertyListCreateDeepCopy(nullptr, list.Get(), mutability));
    EXPECT_TRUE(CFEqual(list.Get(), copy.Get()));
    EXPECT_NE(list.Get(), copy.Get());
    for (const CFTypeRef root : {list.Get(), copy.Get()}) {
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
  const Held nested(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  auto* itself = static_cast<CFMutableArrayRef>(const_cast<void*>(nested.Get()));
  CFArrayAppendValue(itself, itself);
  const Held bare(CFArrayCreateMutable(nullptr, 0, nullptr));
  CFArrayAppendValue(static_cast<CFMutableArrayRef>(const_cast<void*>(bare.Get())),
                     reinterpret_cast<const void*>(uintptr_t{3}));
  const Held numbered(CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                &kCFTypeDictionaryValueCallBacks));
  CFDictionarySetValue(static_cast<CFMutableDictionaryRef>(const_cast<void*>(numbered.Get())),
                       kCFBooleanTrue, kCFBooleanTrue);
  const Held holder(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  CFArrayAppendValue(static_cast<CFMutableArrayRef>(const_cast<void*>(holder.Get())),
                     kCFAllocatorNull);
  const Held late(HostCFDate::Create(1e15));
  const Held never(HostCFDate::Create(std::bit_cast<double>(UINT64_MAX)));
  for (const CFTypeRef object : {nested.Get(), bare.Get(), numbered.Get(), holder.Get(), late.Get(),
                                 never.Get(), CFTypeRef{}, CFTypeRef{kCFAllocatorNull}}) {
    EXPECT_FALSE(CFPropertyListIsValid(object, kCFPropertyListXMLFormat_v1_0));
    EXPECT_FALSE(CFPropertyListIsValid(object, kCFPropertyListBinaryFormat_v1_0));
    EXPECT_EQ('[', WriteXML(object)[0]);
    EXPECT_EQ('[', WriteBinary(object)[0]);
  }
  EXPECT_EQ(nullptr, CFPropertyListCreateDeepCopy(nullptr, nested.Get(), 1));
  CFArrayRemoveAllValues(itself);

  const ReadList number("<integer>1</integer>");
  EXPECT_FALSE(CFPropertyListIsValid(number.Get(), kCFPropertyListOpenStepFormat));
  EXPECT_TRUE(CFPropertyListIsValid(ReadList("(a, <00>)").Get(), kCFPropertyListOpenStepFormat));
  EXPECT_FALSE(CFPropertyListIsValid(number.Get(), 7));
}

// Through both forms and back.
TEST(PropertyList, RandomListsSurviveBothForms) {
  for (UInt32 seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    const Held list(RandomList(seed, RandomList::Text::kAll).Value(5));
    const std::string xml = WriteXML(list.Get());
    const ReadList fromXML(xml);
    ASSERT_NE(nullptr, fromXML.Get()) << fromXML.error.Sentence();
    ASSERT_TRUE(CFEqual(list.Get(), fromXML.Get())) << xml;
    const ReadList fromBinary(WriteBinary(fromXML.Get()));
    ASSERT_NE(nullptr, fromBinary.Get()) << fromBinary.error.Sentence();
    ASSERT_EQ(xml, WriteXML(fromBinary.Get()));
  }
}

// One number for all bytes of many files: every machine writes the same ones.
TEST(PropertyList, EveryHostWritesTheSameBytes) {
  UInt64 sum = 14695981039346656037u;  // FNV-1a
  const auto add = [&sum](const std::string& bytes) {
    for (const char c : bytes) sum = (sum ^ static_cast<UInt8>(c)) * 1099511628211u;
  };
  for (UInt32 seed = 0; seed < 200; ++seed) {
    const Held list(RandomList(seed, RandomList::Text::kAll).Value(5));
    add(WriteXML(list.Get()));
    add(WriteBinary(list.Get()));
  }
  EXPECT_EQ(8820086943229928717u, sum);
}

}  // namespace
