#include "platform/host/ae_event.h"

#include <map>

#include "tests/platform/ae_support.h"

namespace {

using Event = DescTest;
using ReturnIDs = DescTest;

constexpr AEEventClass kClass = FourCC('c', 'l', 's', 's');
constexpr AEEventID kID = FourCC('i', 'd', 'i', 'd');
constexpr AEKeyword kCustom = FourCC('c', 'u', 's', 't');

void MakeEvent(AppleEvent* event, const AEDesc* target = nullptr, AEReturnID id = 5) {
  ASSERT_EQ(0, AECreateAppleEvent(kClass, kID, target, id, -7, event));
}

OSErr PutRaw(AppleEvent* event, AEKeyword key, const Raw& raw) {
  return AEPutAttributePtr(event, key, raw.type, raw.bytes.data(), raw.ByteCount());
}

// The attribute uncoerced; a null value when it is absent.
Raw Attribute(const AppleEvent* event, AEKeyword key) {
  DescType type = typeNull;
  Size size = 0;
  const OSErr err = AESizeOfAttribute(event, key, &type, &size);
  if (err != 0) {
    EXPECT_EQ(errAEDescNotFound, err);
    return {};
  }
  Raw raw = {type, std::string(static_cast<size_t>(size), 0)};
  EXPECT_EQ(0, AEGetAttributePtr(event, key, typeWildCard, &type, raw.bytes.data(), size, &size));
  EXPECT_EQ(raw.type, type);
  EXPECT_EQ(raw.ByteCount(), size);
  return raw;
}

TEST_F(Event, AttributesOfANewEvent) {
  StDesc target, event;
  Make(ULong(77), &target);
  MakeEvent(&event, &target);
  AEDisposeDesc(&target);
  const std::map<AEKeyword, Raw> expected = {
      {keyEventClassAttr, Code(typeType, kClass)},
      {keyEventIDAttr, Code(typeType, kID)},
      {keyReturnIDAttr, Short(5)},
      {keyTransactionIDAttr, Long(-7)},
      {keyAddressAttr, ULong(77)},
      {keyReplyRequestedAttr, Bool(0)},
      {keyEventSourceAttr, Short(kAEUnknownSource)},
      {keyReplyPortAttr, {}},
      {keyTimeoutAttr, {}},
      {keyInteractLevelAttr, {}},
      {keyOriginalAddressAttr, {}},
      {kCustom, {}},
  };
  for (const auto& [key, value] : expected) {
    EXPECT_EQ(value, Attribute(&event, key)) << CodeText(key);
  }
}

TEST_F(Event, TargetMayBeAbsentOrRefused) {
  StDesc null, event;
  StList list;
  MakeEvent(&event, &null);
  EXPECT_EQ(Raw{}, Attribute(&event, keyAddressAttr));
  AEDesc stale = list;
  AEDesc out = {typeChar, nullptr};
  EXPECT_EQ(errAEWrongDataType, AECreateAppleEvent(kClass, kID, &list, 1, 0, &out));
  AEDisposeDesc(&list);
  EXPECT_EQ(errAENotAEDesc, AECreateAppleEvent(kClass, kID, &stale, 1, 0, &out));
  EXPECT_EQ(DescType{typeNull}, out.descriptorType);
}

TEST_F(Event, PuttingAttributes) {
  const std::string psn(8, 'p');
  const struct {
    AEKeyword key;
    Raw put;
    OSErr err;
    Raw after;
  } rows[] = {
      {keyReplyPortAttr, Code(typeMachPort, 9), 0, Code(typeMachPort, 9)},
      {keyTimeoutAttr, Long(-2), 0, Long(-2)},
      {keyTimeoutAttr, Short(60), 0, Long(60)},  // coerced to the attribute's own type
      {keyTimeoutAttr, Text("soon"), errAECoercionFail, {}},
      {keyTimeoutAttr, {typeSInt32, "abc"}, errAECoercionFail, {}},  // cannot be four bytes
      {keyOriginalAddressAttr, {typeProcessSerialNumber, psn}, 0, {typeProcessSerialNumber, psn}},
      {keyAddressAttr,
       {typeApplicationBundleID, "com.veltrane.monitor"},
       0,
       {typeApplicationBundleID, "com.veltrane.monitor"}},
      {keyReturnIDAttr, Long(40000), errAECoercionFail, Short(5)},
      {keyReplyRequestedAttr, Bool(1), errAEWrongDataType, Bool(0)},
      {kCustom, Text("anything"), 0, Text("anything")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(CodeText(row.key));
    StDesc event, copy;
    MakeEvent(&event);
    EXPECT_EQ(row.err, PutRaw(&event, row.key, row.put));
    EXPECT_EQ(row.after, Attribute(&event, row.key));
    ASSERT_EQ(0, AEDuplicateDesc(&event, &copy));
    AEDisposeDesc(&event);
    EXPECT_EQ(row.after, Attribute(&copy, row.key));
  }
}

TEST_F(Event, TheTransportSetsWhatCallersCannot) {
  StDesc event;
  MakeEvent(&event);
  EXPECT_EQ(0, HostSetArrival(&event, {true, kAELocalProcess, 0}));
  EXPECT_EQ(Bool(1), Attribute(&event, keyReplyRequestedAttr));
  EXPECT_EQ(Short(3), Attribute(&event, keyEventSourceAttr));

  HostEventHead head = {};
  EXPECT_EQ(0, HostGetEventHead(&event, &head));
  EXPECT_EQ(kClass, head.eventClass);
  EXPECT_EQ(kID, head.eventID);
  EXPECT_EQ(5, head.returnID);
  EXPECT_EQ(-7, head.transactionID);

  DescType type = 0;
  Size size = 0;
  UInt8 first[8];
  EXPECT_EQ(errAEDescNotFound, HostGetEventAddress(&event, &type, &size, first));
  ASSERT_EQ(0, PutRaw(&event, keyAddressAttr, Text("0123456789abcdefghij")));
  EXPECT_EQ(0, HostGetEventAddress(&event, &type, &size, first));
  EXPECT_EQ(20, size);
  EXPECT_EQ(0, memcmp(first, "01234567", 8));
  ASSERT_EQ(0, PutRaw(&event, keyAddressAttr, Text("ab")));
  EXPECT_EQ(0, HostGetEventAddress(&event, &type, &size, first));
  EXPECT_EQ(0, memcmp(first, "ab\0\0\0\0\0\0", 8));
}

SInt16 ReturnID(const AppleEvent* event) {
  HostEventHead head = {};
  EXPECT_EQ(0, HostGetEventHead(event, &head));
  return head.returnID;
}

TEST_F(ReturnIDs, GeneratedOnesAreDistinct) {
  StDesc kept;
  MakeEvent(&kept, nullptr, kAutoGenerateReturnID);
  const SInt16 keptID = ReturnID(&kept);
  StDesc copy;
  ASSERT_EQ(0, AEDuplicateDesc(&kept, &copy));
  EXPECT_EQ(keptID, ReturnID(&copy));
  AEDisposeDesc(&copy);
  EXPECT_NE(kAutoGenerateReturnID, keptID);
  // More than there are ids: the one in use is passed over every time.
  for (int i = 0; i < 140000; ++i) {
    StDesc event;
    MakeEvent(&event, nullptr, kAutoGenerateReturnID);
    ASSERT_NE(keptID, ReturnID(&event));
    ASSERT_NE(kAutoGenerateReturnID, ReturnID(&event));
    ASSERT_NE(0, ReturnID(&event));
  }
}

TEST_F(ReturnIDs, RunningOutIsNoFailure) {
  // An id that its event gave up is no longer in use.
  StDesc renamed;
  MakeEvent(&renamed, nullptr, kAutoGenerateReturnID);
  ASSERT_EQ(0, PutRaw(&renamed, keyReturnIDAttr, Short(7)));
  std::vector<AppleEvent> events(70000);
  std::map<SInt16, int> uses;
  for (AppleEvent& event : events) {
    MakeEvent(&event, nullptr, kAutoGenerateReturnID);
    ++uses[ReturnID(&event)];
  }
  EXPECT_EQ(65534u, uses.size());
  // The only one that is free is found.
  const SInt16 freed = ReturnID(&events[1000]);
  AEDisposeDesc(&events[1000]);
  MakeEvent(&events[1000], nullptr, kAutoGenerateReturnID);
  EXPECT_EQ(freed, ReturnID(&events[1000]));
  for (AppleEvent& event : events) AEDisposeDesc(&event);
  StDesc event;
  MakeEvent(&event, nullptr, kAutoGenerateReturnID);
}

}  // namespace
