#include "platform/host/events/event.h"

#include <set>

#include "tests/platform/events/support.h"

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

TEST_F(Event, AttributesAreCoercedToTheirTypeOrRefused) {
  const std::string psn(8, 'p');
  const std::tuple<AEKeyword, Raw, OSErr, Raw> rows[] = {
      {keyReplyPortAttr, Code(typeMachPort, 9), 0, Code(typeMachPort, 9)},
      {keyTimeoutAttr, Short(60), 0, Long(60)},  // coerced to the attribute's own type
      {keyTimeoutAttr, {typeSInt32, "abc"}, errAECoercionFail, {}},  // cannot be four bytes
      {keyOriginalAddressAttr, {typeProcessSerialNumber, psn}, 0, {typeProcessSerialNumber, psn}},
      {keyEventClassAttr, Text("long!"), errAECoercionFail, Code(typeType, kClass)},
      {keyEventIDAttr, Text("long!"), errAECoercionFail, Code(typeType, kID)},
      {keyReturnIDAttr, Long(40000), errAECoercionFail, Short(5)},
      {keyTransactionIDAttr, Text("none"), errAECoercionFail, Long(-7)},
      {keyEventSourceAttr, Short(1), errAEWrongDataType, Short(kAEUnknownSource)},
      {keyReplyRequestedAttr, Bool(1), errAEWrongDataType, Bool(0)},
      {kCustom, Text("anything"), 0, Text("anything")},
  };
  for (const auto& [key, put, err, after] : rows) {
    SCOPED_TRACE(CodeText(key));
    StDesc event, copy;
    MakeEvent(&event);
    EXPECT_EQ(err, PutRaw(&event, key, put));
    EXPECT_EQ(after, Attribute(&event, key));
    ASSERT_EQ(0, AEDuplicateDesc(&event, &copy));
    AEDisposeDesc(&event);
    EXPECT_EQ(after, Attribute(&copy, key));
  }
}

TEST_F(Event, TheTransportSetsWhatCallersCannot) {
  StDesc event;
  MakeEvent(&event);
  HostAEEvent* found = nullptr;
  ASSERT_EQ(0, HostFindEvent(&event, &found));
  HostSetArrival(found, {true, kAELocalProcess, 0});
  EXPECT_EQ(Bool(1), Attribute(&event, keyReplyRequestedAttr));
  EXPECT_EQ(Short(3), Attribute(&event, keyEventSourceAttr));

  DescType type = 0;
  Size size = 0;
  UInt8 first[8];
  EXPECT_EQ(errAEDescNotFound, HostGetEventAddress(*found, &type, &size, first));
  ASSERT_EQ(0, PutRaw(&event, keyAddressAttr, Text("0123456789abcdefghij")));
  EXPECT_EQ(0, HostGetEventAddress(*found, &type, &size, first));
  EXPECT_EQ(20, size);
  EXPECT_EQ(0, memcmp(first, "01234567", 8));
  ASSERT_EQ(0, PutRaw(&event, keyAddressAttr, Text("ab")));
  EXPECT_EQ(0, HostGetEventAddress(*found, &type, &size, first));
  EXPECT_EQ(0, memcmp(first, "ab\0\0\0\0\0\0", 8));
}

SInt16 ReturnID(const AppleEvent* event) {
  HostAEEvent* found = nullptr;
  return HostFindEvent(event, &found) == 0 ? found->fields.returnID : SInt16{0};
}

TEST_F(ReturnIDs, AreDistinctUntilTheyRunOutAndThenRepeat) {
  // An id is free when its event has another one, but not while a copy of the event has it.
  StDesc renamed, kept, copy;
  MakeEvent(&kept, nullptr, kAutoGenerateReturnID);
  MakeEvent(&renamed, nullptr, kAutoGenerateReturnID);
  ASSERT_EQ(0, PutRaw(&renamed, keyReturnIDAttr, Short(7)));
  ASSERT_EQ(0, AEDuplicateDesc(&kept, &copy));
  EXPECT_EQ(ReturnID(&kept), ReturnID(&copy));
  AEDisposeDesc(&copy);
  std::vector<AppleEvent> events(70000);
  std::set<SInt16> used = {0, kAutoGenerateReturnID, ReturnID(&kept)};
  for (size_t i = 0; i < events.size(); ++i) {
    MakeEvent(&events[i], nullptr, kAutoGenerateReturnID);
    const bool isNew = used.insert(ReturnID(&events[i])).second;
    EXPECT_EQ(i < 65533, isNew);
  }
  EXPECT_EQ(65536u, used.size());
  // The only one that is free is found.
  const SInt16 freed = ReturnID(&events[1000]);
  AEDisposeDesc(&events[1000]);
  MakeEvent(&events[1000], nullptr, kAutoGenerateReturnID);
  EXPECT_EQ(freed, ReturnID(&events[1000]));
  for (AppleEvent& event : events) AEDisposeDesc(&event);
}

}  // namespace
