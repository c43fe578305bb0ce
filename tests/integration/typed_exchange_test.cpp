#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <servers/bootstrap.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "aeport/coercion.h"
#include "aeport/param_copy.h"
#include "aeport/params.h"
#include "tests/aeport/serving.h"
#include "tests/platform/ae_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// An event with a parameter of every type that a coercion knows, and with lists and records of
// them, between processes of different word size and byte order. Each side makes the same event in
// its own order and describes what it holds in one way; what the other side received, what it sent
// back, and what it coerces each parameter to must read the same.

namespace {

constexpr AEEventClass kTest = FourCC('t', 'e', 's', 't');
constexpr AEEventID kExchange = FourCC('e', 'x', 'c', 'h');
// What the server adds to its answer.
constexpr AEKeyword kReceivedKey = FourCC('-', 'd', 's', 'c');
constexpr AEKeyword kCoercedKey = FourCC('-', 'c', 'o', 'e');
constexpr int kNestingLimit = 64;  // the event's own parameters are level 1

// A NaN, an infinity and zeros are given by their bits, most significant first, whatever the host.
Raw FloatBits(UInt32 bits) { return Number(typeIEEE32BitFloatingPoint, bits); }
Raw DoubleBits(UInt64 bits) { return Number(typeIEEE64BitFloatingPoint, bits); }
Raw Several(DescType type, const std::vector<Raw>& values) {
  Raw raw = {type, ""};
  for (const Raw& value : values) raw.bytes += value.bytes;
  return raw;
}

std::vector<Raw> Values() {
  return {
      {typeNull, ""},
      {typeTrue, ""},
      {typeFalse, ""},
      Bool(0),
      Bool(1),
      Short(0),
      Short(1),
      Short(-2),
      UShort(0xFEDC),
      Long(0x01020304),
      Long(INT32_MIN),
      ULong(0xFEDCBA98),
      Comp(-0x0102030405060708),
      UComp(0xFEDCBA9876543210),
      Float(1.5e10f),
      Float(-2.5f),
      FloatBits(0x7F800000),
      FloatBits(0x7FC00001),
      Double(-0.1),
      Double(65535.5),
      DoubleBits(0x8000000000000000),
      DoubleBits(0xFFF0000000000000),
      FixedPoint(0x00018000),
      {typeExtended, FromHex("4000 c90fdaa22168c235")},
      {type128BitFloatingPoint, FromHex("3fff8000000000000000000000000000")},
      {typeDecimalStruct, FromHex("0001020304")},
      Text("Gr\x9F\xA7"),
      Text(" -12.5e1 "),
      Text("abcd"),
      Text({"a\0b", 3}),
      Text(""),
      {typePString,
       "\x03"
       "abc"},
      {typeCString, std::string("abc\0", 4)},
      UTF16(u"Gr\u00FC\u00DF\u4E2D"),
      UTF16(u"4711"),
      {typeUTF16ExternalRepresentation, FromHex("0047 00e9")},
      UTF8("Gr\xC3\xBC\xC3\x9F"),
      {typeIntlText, FromHex("0000 0000 61628e")},
      {typeStyledText, "abc"},
      {typeStyledUnicodeText, "abc"},
      {typeEncodedString, "abc"},
      Code(typeType, FourCC('a', 'b', 'c', 'd')),
      Code(typeEnumerated, typeTrue),
      Code(typeProperty, 0x01020304),
      Code(typeKeyword, 0x01020304),
      Code(typeApplSignature, 0x01020304),
      Code(typeMachPort, 0x01020304),
      Code(typeKernelProcessID, 4711),
      Several(typeProcessSerialNumber, {ULong(0x01020304), ULong(0xA0B0C0D0)}),
      {typeApplicationBundleID, "com.veltrane.test"},
      {typeApplicationURL, "file:///"},
      {typeFileURL, "file:///tmp/"},
      {typeFSRef, std::string(80, '\x11')},
      {typeFSS, std::string(70, '\x22')},
      {typeAlias, std::string(300, '\x33')},
      // Several numbers in one value, and bytes that are no number.
      Several(typeSInt16, {Short(1), Short(2), Short(-3)}),
      Several(typeSInt32, {Long(1), Long(-2), Long(0x01020304)}),
      Several(typeIEEE64BitFloatingPoint, {Double(1), Double(0.1)}),
      {typeSInt32, "abc"},
      {typeSInt64, "123456789"},
      {typeSInt16, ""},
      {FourCC('t', 'd', 't', 'a'), std::string(70000, '\x44')},
  };
}

const DescType kTargets[] = {
    typeNull,
    typeBoolean,
    typeTrue,
    typeFalse,
    typeSInt16,
    typeUInt16,
    typeSInt32,
    typeUInt32,
    typeSInt64,
    typeUInt64,
    typeFixed,
    typeIEEE32BitFloatingPoint,
    typeIEEE64BitFloatingPoint,
    typeExtended,
    type128BitFloatingPoint,
    typeChar,
    typePString,
    typeCString,
    typeUnicodeText,
    typeUTF8Text,
    typeUTF16ExternalRepresentation,
    typeIntlText,
    typeStyledText,
    typeEncodedString,
    typeStyledUnicodeText,
    typeType,
    typeEnumerated,
    typeProperty,
    typeKeyword,
    typeApplSignature,
    typeAEList,
    typeAERecord,
    typeAppleEvent,
    typeProcessSerialNumber,
};

AEKeyword KeyOf(size_t index) { return FourCC('p', 0, 0, 0) + static_cast<AEKeyword>(index); }

void PutValue(AEDesc* container, AEKeyword key, const Raw& value) {
  ASSERT_EQ(0, AEPutParamPtr(container, key, value.type, value.bytes.data(), value.ByteCount()));
}

// A list of a list of ... of a number, `levels` deep.
void MakeNested(int levels, AEDesc* list) {
  ASSERT_EQ(0, AECreateList(nullptr, 0, false, list));
  const SInt32 number = 0x01020304;
  ASSERT_EQ(0, AEPutPtr(list, 0, typeSInt32, &number, sizeof number));
  for (int level = 1; level < levels; ++level) {
    StDesc outer;
    ASSERT_EQ(0, AECreateList(nullptr, 0, false, &outer));
    ASSERT_EQ(0, AEPutDesc(&outer, 0, list));
    ASSERT_EQ(0, AECoerceDescToType(outer, typeAEList, *list));
  }
}

void PutContainers(AEDesc* event) {
  StDesc all, empty, one, record, own, deep, inner;
  ASSERT_EQ(0, AECreateList(nullptr, 0, false, &all));
  ASSERT_EQ(0, AECreateList(nullptr, 0, false, &empty));
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  ASSERT_EQ(0, AECreateAppleEvent(kTest, 1, nullptr, -7, -70000, &inner));
  AEKeyword key = 0;
  for (const Raw& value : Values()) {
    ASSERT_EQ(0, AEPutPtr(&all, 0, value.type, value.bytes.data(), value.ByteCount()));
    PutValue(&record, ++key, value);
    PutValue(&inner, ++key, value);
  }
  ASSERT_EQ(0, AECoercePtrToDesc(typeChar, "-12", 3, typeAEList, one));
  MakeNested(kNestingLimit - 1, &deep);
  ASSERT_EQ(0, AEPutDesc(&all, 0, &empty));
  ASSERT_EQ(0, AEPutDesc(&all, 0, &record));
  ASSERT_EQ(0, AEPutDesc(&all, 0, &inner));
  ASSERT_EQ(0, AEPutParamDesc(&record, FourCC('l', 'i', 's', 't'), &all));
  ASSERT_EQ(0, AECoerceDescToType(record, FourCC('o', 'b', 'j', ' '), own));
  const AEDesc* const containers[] = {&all, &empty, &one, &record, &own, &deep, &inner};
  for (const AEDesc* container : containers) {
    ASSERT_EQ(0, AEPutParamDesc(event, ++key | FourCC('c', 0, 0, 0), container));
  }
}

void PutAll(AEDesc* event) {
  const std::vector<Raw> values = Values();
  for (size_t i = 0; i < values.size(); ++i) PutValue(event, KeyOf(i), values[i]);
  PutContainers(event);
}

// Bytes in one number of the type. Kept apart from the table that is being tested.
size_t NumberSize(DescType type) {
  const struct {
    size_t size;
    std::vector<DescType> types;
  } rows[] = {
      {2, {typeSInt16, typeUInt16, typeUnicodeText}},
      {4,
       {typeSInt32, typeUInt32, typeIEEE32BitFloatingPoint, typeFixed, typeType, typeEnumerated,
        typeProperty, typeKeyword, typeApplSignature, typeMachPort, typeKernelProcessID,
        typeProcessSerialNumber}},
      {8, {typeSInt64, typeUInt64, typeIEEE64BitFloatingPoint}},
  };
  for (const auto& row : rows) {
    for (const DescType one : row.types) {
      if (one == type) return row.size;
    }
  }
  return 1;
}

// The hexadecimal digits of each number, most significant first.
std::string NumbersText(const Raw& raw) {
  const size_t size = NumberSize(raw.type);
  if (raw.bytes.size() % size != 0) return Hex(raw.bytes) + " (odd)";
  std::string text;
  for (size_t at = 0; at < raw.bytes.size(); at += size) {
    std::string number = raw.bytes.substr(at, size);
    if (std::endian::native == std::endian::little) number.assign(number.rbegin(), number.rend());
    text += Hex(number);
  }
  return text;
}

std::string Describe(const AEDesc& desc);

// The items with their keywords, separated; each in a line of its own at the top.
std::string DescribeItems(const AEDesc& container, const char* separator) {
  std::string text;
  SInt32 count = 0;
  EXPECT_EQ(0, AECountItems(&container, &count));
  for (SInt32 i = 1; i <= count; ++i) {
    StDesc item;
    AEKeyword key = 0;
    EXPECT_EQ(0, AEGetNthDesc(&container, i, typeWildCard, &key, &item));
    if (key == kReceivedKey || key == kCoercedKey) continue;
    char digits[9];
    EXPECT_EQ(0, OSTypeToLongCString(key, digits, sizeof digits));
    text += std::string(digits) + ":" + Describe(item) + separator;
  }
  return text;
}

std::string DescribeHead(const AEDesc& event) {
  std::string text;
  for (const AEKeyword key :
       {keyEventClassAttr, keyEventIDAttr, keyReturnIDAttr, keyTransactionIDAttr}) {
    StDesc value;
    EXPECT_EQ(0, AEGetAttributeDesc(&event, key, typeWildCard, &value));
    text += Describe(value) + ",";
  }
  return text;
}

std::string Describe(const AEDesc& desc) {
  std::string type = CodeText(desc.descriptorType);
  if (desc.descriptorType == typeAppleEvent) type += "(" + DescribeHead(desc) + ")";
  if (desc.descriptorType == typeAEList || AECheckIsRecord(&desc)) {
    return type + "{" + DescribeItems(desc, ",") + "}";
  }
  return type + " " + NumbersText(Contents(desc));
}

// What every parameter becomes when it is coerced, one line for each pair of types.
std::string DescribeCoercions(const AEDesc& event) {
  std::string text;
  const std::vector<Raw> values = Values();
  for (size_t i = 0; i < values.size(); ++i) {
    StDesc value;
    EXPECT_EQ(0, AEGetParamDesc(&event, KeyOf(i), typeWildCard, &value));
    for (const DescType target : kTargets) {
      StDesc coerced;
      const OSStatus err = AECoerceDescToType(value, target, coerced);
      text += std::to_string(i) + " " + CodeText(target) + " " + std::to_string(err) + " " +
              Describe(coerced) + "\n";
    }
  }
  return text;
}

// The first line that two texts do not share, or "".
std::string Difference(const std::string& what, const std::string& expected,
                       const std::string& got) {
  std::istringstream left(expected), right(got);
  for (;;) {
    std::string a, b;
    const bool hasA = static_cast<bool>(std::getline(left, a));
    const bool hasB = static_cast<bool>(std::getline(right, b));
    if (!hasA && !hasB) return "";
    if (hasA != hasB || a != b) {
      return what + ": expected " + a.substr(0, 300) + ", got " + b.substr(0, 300);
    }
  }
}

void PutLongText(AEDesc* event, AEKeyword key, const std::string& text) {
  ASSERT_EQ(0, PutAEText(event, key, reinterpret_cast<const unsigned char*>(text.data()),
                         static_cast<SInt32>(text.size())));
}

std::string LongText(const AEDesc& event, AEKeyword key) {
  void* data = nullptr;
  SInt32 size = 0;
  EXPECT_EQ(0, AECopyParamData(&event, key, typeChar, data, &size, nullptr, nullptr));
  const std::string text(static_cast<char*>(data), static_cast<size_t>(size));
  DisposePtr(static_cast<Ptr>(data));
  return text;
}

// Sends back all that came, with what it looks like from here.
OSStatus SendBack(const ServedEvent& served) {
  if (served.eventClass != kTest || served.eventID != kExchange) return errAEEventNotHandled;
  SInt32 count = 0;
  OSStatus err = AECountItems(served.event, &count);
  for (SInt32 i = 1; err == 0 && i <= count; ++i) {
    StDesc item;
    AEKeyword key = 0;
    err = AEGetNthDesc(served.event, i, typeWildCard, &key, &item);
    if (err == 0) err = AEPutParamDesc(served.reply, key, &item);
  }
  PutLongText(served.reply, kReceivedKey, DescribeItems(*served.event, "\n"));
  PutLongText(served.reply, kCoercedKey, DescribeCoercions(*served.event));
  return err == 0 && testing::Test::HasFailure() ? OSStatus{paramErr} : err;
}

// The first thing that the two sides do not see alike, or "".
std::string Exchange(const char* name) {
  VLTPortDestinationAddress address(name);
  VLTPortAppleEvent event(kTest, kExchange, kAEWaitReply, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) PutAll(&event.event);
  if (err == 0) err = event.sendEvent(0, 60 * 60, kAENormalPriority);
  if (err != 0) return "error " + std::to_string(err);

  const std::string mine = DescribeItems(event.event, "\n");
  std::string difference = Difference("sent", mine, LongText(event.reply, kReceivedKey));
  if (difference.empty()) {
    difference = Difference("returned", mine, DescribeItems(event.reply, "\n"));
  }
  if (difference.empty()) {
    difference =
        Difference("coerced", DescribeCoercions(event.event), LongText(event.reply, kCoercedKey));
  }
  event.finalizeEvent();
  return difference;
}

std::string HostText() {
  const bool isBig = std::endian::native == std::endian::big;
  return std::to_string(sizeof(void*)) + (isBig ? " big" : " little");
}

TEST_ROLE(Server) {
  EventHandler handler = SendBack;
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return kRoleFailed;
  }
  role.Tell(HostText());
  role.SignalReady();
  CFRunLoopRun();
  return kRoleFailed;  // the test kills us first
}

TEST_ROLE(Client) {
  role.Tell(HostText());
  role.Tell(Exchange(role.PortName()));
  role.Tell(std::to_string(Ask(role.PortName(), kPing).status));
  return testing::Test::HasFailure() ? kRoleFailed : kRoleDone;
}

TEST(TypedExchange, WithAServerOfTheOtherHost) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server", {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  RunOnThread([&] {
    EXPECT_EQ("", Exchange(server.PortName()));
    EXPECT_EQ(errAEEventNotHandled, Ask(server.PortName(), kPing).status);
    server.KillAndWait(20s);
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(server.PortName(), kPing).status);
  });
}

TEST(TypedExchange, WithAClientOfTheOtherHost) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server");
  EXPECT_EQ("8 little", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  TestProcess client("Client", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", client.Hear(60s));
  EXPECT_EQ("", client.Hear(60s));
  EXPECT_EQ(std::to_string(errAEEventNotHandled), client.Hear(60s));
  EXPECT_EQ(kRoleDone, client.Wait(20s));
  // Nor does the other host take a name that is owned here.
  TestProcess rival("Server", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ(kRoleFailed, rival.Wait(60s));
  RunOnThread([&] { EXPECT_EQ("", Exchange(server.PortName())); });
}

}  // namespace
