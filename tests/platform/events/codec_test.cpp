#include "platform/host/events/codec.h"

#include <utility>

#include "platform/host/events/event.h"
#include "tests/platform/events/support.h"

namespace {

using Codec = DescTest;
using Decoding = DescTest;

constexpr AEKeyword kKey = FourCC('k', 'e', 'y', '1');

// Returns the body of the event's frame.
std::string Flatten(const AppleEvent& event) {
  HostGather frame;
  frame.Clear();
  EXPECT_EQ(0, HostFlattenEvent(&event, frame));
  std::string bytes;
  for (const iovec& piece : frame.Pieces()) {
    bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
  }
  EXPECT_EQ(frame.TotalSize(), bytes.size());
  return bytes.substr(kHostFrameHeaderSize);
}

OSStatus Decode(const std::string& body, AppleEvent* out, HostFrameRef* frame = nullptr) {
  HostFrameSlice slice;
  slice.owner = HostFrameRef(HostFrameBuffer::Create(body.size()));
  slice.bytes = slice.owner->Bytes();
  slice.size = body.size();
  memcpy(slice.bytes, body.data(), body.size());
  if (frame != nullptr) *frame = slice.owner;
  return HostDecodeEvent(std::move(slice), out);
}

OSErr PutRaw(AEDesc* container, AEKeyword key, const Raw& raw) {
  return AEPutParamPtr(container, key, raw.type, raw.bytes.data(), raw.ByteCount());
}

// An event that has something of everything, with text at its keys' ends.
void MakeRichEvent(AppleEvent* event) {
  StDesc target, record, inner;
  Make(ULong(77), &target);
  ASSERT_EQ(0, AECreateAppleEvent(FourCC('c', 'l', 's', 's'), FourCC('i', 'd', 'i', 'd'), &target,
                                  -2, 0x01020304, event));
  const SInt32 ticks = 60;
  ASSERT_EQ(0, AEPutAttributePtr(event, keyTimeoutAttr, typeSInt32, &ticks, sizeof ticks));
  ASSERT_EQ(0, AEPutAttributePtr(event, kKey, typeChar, "attr", 4));
  ASSERT_EQ(0, PutRaw(event, kKey, Short(-2)));

  StList list;
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeBoolean, "\1", 1));
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  ASSERT_EQ(0, PutRaw(&record, kKey, Comp(-2)));
  ASSERT_EQ(0, AEPutDesc(&list, 0, &record));
  ASSERT_EQ(0, AEPutParamDesc(event, FourCC('l', 's', 't', '1'), &list));

  ASSERT_EQ(0, AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 3, 4, &inner));
  ASSERT_EQ(0, PutRaw(&inner, keyErrorNumber, Long(-1708)));
  ASSERT_EQ(0, AEPutParamDesc(event, FourCC('e', 'v', 't', '1'), &inner));
}

// Its bytes on the wire, on every CPU architecture.
const char kRichEvent[] =
    "636c7373 69646964 fffe 01 00 01020304 00000002 00000003"  // head
    "74696d6f 6c6f6e67 00000004 0000003c"                      // attribute timo, long
    "6b657931 54455854 00000004 61747472"                      // attribute key1, TEXT
    "6b657931 73686f72 00000002 fffe"                          // parameter key1, shor
    "6c737431 6c697374 40000035 00000002"                      // lst1, a list of two
    "  2a2a2a2a 626f6f6c 00000001 01"                          //   bool
    "  2a2a2a2a 7265636f 80000018 00000001"                    //   a record of one
    "    6b657931 636f6d70 00000008 fffffffffffffffe"          //     key1, comp
    "65767431 61657674 c0000028"                               // evt1, an event
    "  61657674 616e7372 0003 01 00 00000004 00000000 00000001"
    "  6572726e 6c6f6e67 00000004 fffff954";

TEST_F(Codec, BytesAreTheSameOnEveryArchitecture) {
  StDesc event, decoded;
  MakeRichEvent(&event);
  EXPECT_EQ(Hex(FromHex(kRichEvent)), Hex(Flatten(event)));

  ASSERT_EQ(0, Decode(FromHex(kRichEvent), &decoded));
  EXPECT_EQ(Hex(FromHex(kRichEvent)), Hex(Flatten(decoded)));
  // The address does not travel; everything else does.
  AEPutAttributePtr(&decoded, keyAddressAttr, typeUInt32, Number(typeUInt32, 77).bytes.data(), 4);
  EXPECT_EQ(Printed(event), Printed(decoded));
}

TEST_F(Codec, EveryTypeArrivesInTheReceiversOrder) {
  const std::vector<Raw> values = ValuesOfEveryType();
  StDesc decoded;
  StEvent event;
  AEKeyword key = 1;
  for (const Raw& value : values) ASSERT_EQ(0, PutRaw(&event, key++, value));
  ASSERT_EQ(0, Decode(Flatten(event), &decoded));
  key = 1;
  for (const Raw& value : values) {
    SCOPED_TRACE(testing::PrintToString(value));
    StDesc desc;
    ASSERT_EQ(0, AEGetParamDesc(&decoded, key++, typeWildCard, &desc));
    EXPECT_EQ(value, Contents(desc));
  }
}

TEST_F(Codec, ValuesTakenOutOfAnEventOutliveItsFrame) {
  const Raw large = {typeChar, std::string(size_t{4} << 20, 'L')};
  const Raw small = {typeChar, std::string(100, 's')};
  StDesc largeCopy, smallCopy, listCopy, eventCopy;
  StEvent event;
  StList list;
  ASSERT_EQ(0, AEPutPtr(&list, 0, small.type, small.bytes.data(), small.ByteCount()));
  ASSERT_EQ(0, PutRaw(&event, 1, large));
  ASSERT_EQ(0, PutRaw(&event, 2, small));
  ASSERT_EQ(0, AEPutParamDesc(&event, 3, &list));
  HostFrameRef frame;
  {
    StDesc decoded;
    ASSERT_EQ(0, Decode(Flatten(event), &decoded, &frame));
    ASSERT_EQ(0, AEGetParamDesc(&decoded, 1, typeWildCard, &largeCopy));
    ASSERT_EQ(0, AEGetParamDesc(&decoded, 2, typeWildCard, &smallCopy));
    ASSERT_EQ(0, AEGetParamDesc(&decoded, 3, typeWildCard, &listCopy));
    ASSERT_EQ(0, AEDuplicateDesc(&decoded, &eventCopy));
  }
  EXPECT_TRUE(frame->IsShared());  // with the large value
  EXPECT_EQ(large, Contents(largeCopy));
  EXPECT_EQ(small, Contents(smallCopy));
  EXPECT_EQ("[ \xD2" + small.bytes + "\xD3 ]", Printed(listCopy));
  EXPECT_TRUE(Flatten(event) == Flatten(eventCopy));
  AEDisposeDesc(&largeCopy);
  AEDisposeDesc(&eventCopy);
  EXPECT_FALSE(frame->IsShared());  // a small one must not keep it
}

TEST_F(Codec, APutThatFailsKeepsNothing) {
  HostFrameRef frame;
  StDesc source, large, value;
  {
    StEvent event;
    ASSERT_EQ(0, PutRaw(&event, kKey, {typeChar, std::string(size_t{1} << 20, 'L')}));
    ASSERT_EQ(0, Decode(Flatten(event), &source, &frame));
  }
  ASSERT_EQ(0, AEGetParamDesc(&source, kKey, typeWildCard, &large));
  AEDisposeDesc(&source);
  Make(Long(1), &value);
  StList list, inner;
  StEvent event;
  ASSERT_EQ(0, AEPutDesc(&inner, 0, &large));
  {
    // An event releases its addresses.
    StEvent addressed;
    ASSERT_EQ(0, AEPutAttributeDesc(&addressed, keyAddressAttr, &large));
    ASSERT_EQ(0, AEPutAttributeDesc(&addressed, keyOriginalAddressAttr, &large));
  }
  AEDisposeDesc(&large);
  // The list's item is the only one that shares the frame.
  EXPECT_EQ(errAEWrongDataType, AEPutParamDesc(&list, kKey, &inner));
  EXPECT_EQ(errAEWrongDataType, AEPutParamDesc(&value, kKey, &inner));
  EXPECT_EQ(errAEWrongDataType, AEPutDesc(&event, 0, &inner));
  EXPECT_EQ(errAEIllegalIndex, AEPutDesc(&list, 2, &inner));
  EXPECT_EQ(errAEIllegalIndex, AEPutDesc(&list, -1, &inner));
  EXPECT_EQ(errAENotAppleEvent, AEPutAttributeDesc(&list, kKey, &inner));
  EXPECT_EQ(errAEWrongDataType, AEPutAttributeDesc(&event, keyAddressAttr, &inner));
  EXPECT_EQ(errAEWrongDataType, AEPutAttributeDesc(&event, keyEventSourceAttr, &inner));
  EXPECT_EQ(errAECoercionFail, AEPutAttributeDesc(&event, keyTimeoutAttr, &inner));
  StDesc target;
  EXPECT_EQ(errAEWrongDataType, AECreateAppleEvent(1, 1, &inner, 1, 0, &target));
  EXPECT_TRUE(frame->IsShared());
  // Values that are replaced, deleted or disposed of are released as well.
  ASSERT_EQ(0, AEPutParamDesc(&event, kKey, &inner));
  ASSERT_EQ(0, AEPutAttributeDesc(&event, kKey, &inner));
  ASSERT_EQ(0, PutRaw(&event, kKey, Long(1)));
  ASSERT_EQ(0, AEPutAttributePtr(&event, kKey, typeChar, "x", 1));
  ASSERT_EQ(0, AEPutDesc(&list, 0, &inner));
  ASSERT_EQ(0, AEDeleteItem(&list, 1));
  ASSERT_EQ(0, AEPutParamDesc(&event, kKey, &inner));
  ASSERT_EQ(0, AEDeleteParam(&event, kKey));
  AEDisposeDesc(&inner);
  EXPECT_FALSE(frame->IsShared());
}

TEST_F(Codec, AnEventMayFillItsFrameExactly) {
  enum class Filled { kByOneValue, kBySmallValues, kByAList };
  for (const Filled way : {Filled::kByOneValue, Filled::kBySmallValues, Filled::kByAList}) {
    for (const size_t beyond : {size_t{0}, size_t{1}}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(way) << " beyond by " << beyond);
      StEvent event;
      StList list;
      HostGather frame;
      // The fixed part: 32 + 24 bytes, then 12 for each item, and 4 for a list's count.
      size_t left = kHostFrameLimit - 56 + beyond;
      if (way == Filled::kByAList) {
        left -= 16;
        ASSERT_EQ(0, PutRaw(&event, 1, {typeChar, std::string(left - 12 - 24, 'x')}));
        ASSERT_EQ(0, AEPutPtr(&list, 0, typeChar, "twelve bytes", 12));
        ASSERT_EQ(0, AEPutParamDesc(&event, 2, &list));
      } else {
        const size_t last = way == Filled::kByOneValue ? 0 : 12 + 16;
        ASSERT_EQ(0, PutRaw(&event, 1, {typeChar, std::string(left - last - 12, 'x')}));
        if (last > 0) {
          ASSERT_EQ(0, PutRaw(&event, 2, {typeChar, std::string(16, 's')}));
        }
      }
      frame.Clear();
      EXPECT_EQ(beyond == 0 ? 0 : memFullErr, HostFlattenEvent(&event, frame));
      if (beyond != 0) continue;
      EXPECT_EQ(kHostFrameLimit, frame.TotalSize());
      StDesc decoded;
      EXPECT_EQ(0, Decode(Flatten(event), &decoded));
    }
  }
}

TEST_F(Codec, AttributesMayBeContainers) {
  StDesc decoded;
  StList list;
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeBoolean, "\1", 1));
  StEvent event;
  ASSERT_EQ(0, AEPutAttributeDesc(&event, kKey, &list));
  ASSERT_EQ(0, PutRaw(&event, kKey, Long(5)));
  ASSERT_EQ(0, Decode(Flatten(event), &decoded));
  EXPECT_EQ("'aevt'\\'ansr'{ 'key1':5, &'rtid':1, &'tran':0, &'key1':[ 'true' ] }",
            Printed(decoded));
}

TEST_F(Codec, LargeValuesAreBorrowed) {
  const std::string large(size_t{1} << 20, 'L');
  StEvent event;
  for (AEKeyword key = 1; key <= 3; ++key) {
    ASSERT_EQ(0, PutRaw(&event, key, Text(key == 2 ? large : "small")));
  }
  HostGather frame;
  for (int round = 0; round < 2; ++round) {
    frame.Clear();
    ASSERT_EQ(0, HostFlattenEvent(&event, frame));
    ASSERT_EQ(3u, frame.Pieces().size());
    EXPECT_EQ(large.size(), frame.Pieces()[1].iov_len);
  }
}

// Lists within lists, `levels` deep below the event's own parameters.
std::string NestedBody(int levels) {
  std::string content = FromHex("00000000");
  for (int level = 1; level < levels; ++level) {
    const auto size = static_cast<UInt32>(content.size());
    std::string head = FromHex("00000001 2a2a2a2a 6c697374 40000000");
    for (int i = 0; i < 3; ++i) head[15 - i] = static_cast<char>(size >> (8 * i));
    content.insert(0, head);
  }
  std::string head =
      FromHex("61657674 616e7372 0001 01 00 00000000 00000000 00000001 2d2d2d2d 6c697374 40000000");
  for (int i = 0; i < 3; ++i)
    head[head.size() - 1 - i] = static_cast<char>(content.size() >> (8 * i));
  return head + content;
}

TEST_F(Decoding, NestingIsLimited) {
  const std::pair<int, OSStatus> rows[] = {
      {2, 0}, {63, 0}, {64, errAECorruptData}, {10000, errAECorruptData}};
  for (const auto& [levels, expected] : rows) {
    SCOPED_TRACE(levels);
    StDesc event, copy;
    EXPECT_EQ(expected, Decode(NestedBody(levels), &event));
    if (expected == 0) {
      EXPECT_EQ(NestedBody(levels), Flatten(event));
      EXPECT_EQ(0, AEDuplicateDesc(&event, &copy));
      // Its depth counts when it is put into another event.
      const OSErr err = AEPutParamDesc(&copy, kKey, &event);
      EXPECT_EQ(levels == 63 ? errAEBadListItem : 0, err);
    }
  }
}

TEST_F(Decoding, RefusesBytesThatAreNotAnEvent) {
  const std::string head = "61657674 616e7372 0001 01 00 00000000 ";
  const std::string one = head + "00000000 00000001 ", two = head + "00000000 00000002 ";
  const struct {
    const char* why;
    std::string body;
    OSStatus err = errAECorruptData;
  } rows[] = {
      {"as it should be", head + "00000000 00000000", 0},
      {"empty", ""},
      {"cut head", head + "00000000 000000"},
      {"trailing byte", head + "00000000 00000000 00"},
      {"version 0", "61657674 616e7372 0001 00 00 00000000 00000000 00000000"},
      {"version 2", "61657674 616e7372 0001 02 00 00000000 00000000 00000000", errAENewerVersion},
      {"flags", "61657674 616e7372 0001 01 80 00000000 00000000 00000000"},
      {"parameter count", head + "00000000 00000001"},
      {"huge count", head + "00000000 ffffffff"},
      {"counts whose sum has 33 bits", head + "00000001 ffffffff 6b657931 626f6f6c 00000000"},
      {"list's huge count", one + "2d2d2d2d 6c697374 40000004 ffffffff"},
      {"count of attributes", head + "00000001 00000000 2d2d2d2d 626f6f6c 00000001 01 00"},
      {"fewer than there are", head + "00000000 00000000 2d2d2d2d 626f6f6c 00000001 01"},
      {"size too large", one + "2d2d2d2d 626f6f6c 00000002 01"},
      {"reserved bits", one + "2d2d2d2d 626f6f6c 01000001 01"},
      {"null with data", one + "2d2d2d2d 6e756c6c 00000001 01"},
      {"list as value", one + "2d2d2d2d 6c697374 00000004 00000000"},
      {"value as list", one + "2d2d2d2d 54455854 40000004 00000000"},
      {"value as record", one + "2d2d2d2d 6c6f6e67 80000004 00000000"},
      {"record with a type of its own", one + "2d2d2d2d 6f626a20 80000004 00000000", 0},
      {"list without a count", one + "2d2d2d2d 6c697374 40000003 000000"},
      {"list's count", one + "2d2d2d2d 6c697374 40000004 00000001"},
      {"list's trailing byte", one + "2d2d2d2d 6c697374 40000005 00000000 00"},
      {"item beyond its list", two +
                                   "2d2d2d2d 6c697374 40000010 00000001 2a2a2a2a 626f6f6c 00000001"
                                   "00000001 626f6f6c 00000000"},
      {"key in a list", one + "2d2d2d2d 6c697374 40000010 00000001 2d2d2d2d 626f6f6c 00000000"},
      {"parameter twice", two + "2d2d2d2d 626f6f6c 00000000 2d2d2d2d 54455854 00000000"},
      {"record's key twice", one + "2d2d2d2d 7265636f 8000001c 00000002"
                                   "2d2d2d2d 626f6f6c 00000000 2d2d2d2d 54455854 00000000"},
      {"attribute twice",
       head + "00000002 00000000 6b657931 626f6f6c 00000000 6b657931 626f6f6c 00000000"},
      {"timeout twice", head + "00000002 00000000 74696d6f 6c6f6e67 00000004 00000001"
                               "74696d6f 6c6f6e67 00000004 00000001"},
      {"timeout of another type", head + "00000001 00000000 74696d6f 73686f72 00000002 0001"},
      {"timeout as a list", head + "00000001 00000000 74696d6f 6c697374 40000004 00000000"},
      {"an address", head + "00000001 00000000 61646472 706f7274 00000004 00000001"},
      {"a reply port", head + "00000001 00000000 72657070 706f7274 00000004 00000001"},
      {"reply wanted", head + "00000001 00000000 72657071 626f6f6c 00000001 01"},
      {"event class", head + "00000001 00000000 6576636c 74797065 00000004 00000001"},
      {"inner event cut", one + "2d2d2d2d 61657674 c0000014 " + head + "00000000"},
      {"inner event newer",
       one + "2d2d2d2d 61657674 c0000018 61657674 616e7372 0001 02 00 00000000"
             "00000000 00000000",
       errAENewerVersion},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    AEDesc event = {typeChar, reinterpret_cast<AEDataStorage>(1)};
    EXPECT_EQ(row.err, Decode(FromHex(row.body), &event));
    if (row.err == 0) {
      EXPECT_EQ(Hex(FromHex(row.body)), Hex(Flatten(event)));
    } else {
      EXPECT_EQ(nullptr, event.dataHandle);
    }
    AEDisposeDesc(&event);
  }
}

TEST_F(Decoding, CutAnywhereIsCorrupt) {
  const std::string whole = FromHex(kRichEvent);
  for (size_t size = 0; size < whole.size(); ++size) {
    AEDesc event = {typeNull, nullptr};
    EXPECT_EQ(errAECorruptData, Decode(whole.substr(0, size), &event)) << size;
  }
}

TEST_F(Decoding, ManyKeysAreStillCompared) {
  for (const bool twice : {false, true}) {
    StDesc decoded;
    StEvent event;
    for (AEKeyword key = 0; key < 100; ++key) ASSERT_EQ(0, PutRaw(&event, key, {typeTrue, ""}));
    std::string body = Flatten(event);
    if (twice) body[body.size() - 12 + 3] = 1;  // the last key becomes the second
    EXPECT_EQ(twice ? errAECorruptData : 0, Decode(body, &decoded));
  }
}

TEST_F(Decoding, RecycledEventsAreEmpty) {
  const std::string plain = FromHex("61657674 616e7372 0001 01 00 00000000 00000000 00000000");
  StDesc fresh;
  ASSERT_EQ(0, Decode(plain, &fresh));
  const std::string expected = Printed(fresh);
  for (int round = 0; round < 100; ++round) {
    StDesc rich, next;
    ASSERT_EQ(0, Decode(FromHex(kRichEvent), &rich));
    HostAEEvent* found = nullptr;
    ASSERT_EQ(0, HostFindEvent(&rich, &found));
    HostSetArrival(found, {true, kAELocalProcess, 4711});
    AEDisposeDesc(&rich);
    ASSERT_EQ(0, Decode(plain, &next));
    EXPECT_EQ(expected, Printed(next));
    StDesc wanted;
    EXPECT_EQ(0, AEGetAttributeDesc(&next, keyReplyRequestedAttr, typeWildCard, &wanted));
    EXPECT_EQ(Bool(0), Contents(wanted));
  }
}

}  // namespace
