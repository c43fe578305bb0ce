#include "platform/host/events/codec.h"
#include "tests/platform/events/support.h"

namespace {

using List = DescTest;
using Nesting = DescTest;
using Param = DescTest;
using Record = DescTest;

constexpr AEKeyword kKey = FourCC('k', 'e', 'y', '1');
constexpr AEKeyword kOther = FourCC('k', 'e', 'y', '2');

void MakeList(std::initializer_list<SInt32> values, AEDescList* list) {
  ASSERT_EQ(0, AECreateList(nullptr, 0, false, list));
  for (const SInt32 value : values) {
    ASSERT_EQ(0, AEPutPtr(list, 0, typeSInt32, &value, sizeof value));
  }
}

std::vector<SInt32> Values(const AEDescList& list) {
  SInt32 count = 0;
  EXPECT_EQ(0, AECountItems(&list, &count));
  std::vector<SInt32> values(static_cast<size_t>(count));
  for (SInt32 i = 0; i < count; ++i) {
    AEKeyword key = 0;
    EXPECT_EQ(0, AEGetNthPtr(&list, i + 1, typeSInt32, &key, nullptr, &values[i], 4, nullptr));
    EXPECT_EQ(AEKeyword{typeWildCard}, key);
  }
  return values;
}

TEST_F(List, PutAndDeleteRefuseIndexesOutOfRange) {
  using Ints = std::vector<SInt32>;
  const std::tuple<bool, SInt32, OSErr, Ints> rows[] = {
      {true, 0, 0, {1, 2, 3, 9}},  // appends
      {true, 4, 0, {1, 2, 3, 9}},  // the index after the last appends, too
      {true, 1, 0, {9, 2, 3}},     // replaces
      {true, 5, errAEIllegalIndex, {1, 2, 3}},
      {false, 1, 0, {2, 3}},
      {false, 0, errAEDescNotFound, {1, 2, 3}},
      {false, 4, errAEDescNotFound, {1, 2, 3}},
  };
  for (const auto& [isPut, index, expected, after] : rows) {
    SCOPED_TRACE(index);
    StDesc list;
    MakeList({1, 2, 3}, &list);
    const SInt32 value = 9;
    const OSErr err = isPut ? AEPutPtr(&list, index, typeSInt32, &value, sizeof value)
                            : AEDeleteItem(&list, index);
    EXPECT_EQ(expected, err);
    EXPECT_EQ(after, Values(list));
  }
  StDesc list;
  MakeList({1}, &list);
  for (const SInt32 index : {0, 2, INT32_MIN}) {
    AEDesc out = {typeChar, reinterpret_cast<AEDataStorage>(1)};
    EXPECT_EQ(errAEDescNotFound, AEGetNthDesc(&list, index, typeWildCard, nullptr, &out));
    EXPECT_EQ(DescType{typeNull}, out.descriptorType);
  }
}

TEST_F(List, MayBePutIntoItself) {
  StDesc list;
  MakeList({1}, &list);
  EXPECT_EQ(0, AEPutDesc(&list, 0, &list));
  EXPECT_EQ(0, AEPutDesc(&list, 1, &list));
  EXPECT_EQ("[ [ 1, [ 1 ] ], [ 1 ] ]", Printed(list));
}

TEST_F(Record, KeysAreReplacedNotRepeated) {
  StDesc record;
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  StEvent event;
  for (AEDesc* container : {static_cast<AEDesc*>(&record), static_cast<AEDesc*>(&event)}) {
    const std::string longText(100, 'x');
    EXPECT_EQ(0, AEPutParamPtr(container, kKey, typeChar, longText.data(), 100));
    EXPECT_EQ(0, AEPutParamPtr(container, kOther, typeBoolean, "\1", 1));
    EXPECT_EQ(0, AEPutParamPtr(container, kKey, typeChar, "short", 5));
    SInt32 count = 0;
    EXPECT_EQ(0, AECountItems(container, &count));
    EXPECT_EQ(2, count);
    AEKeyword key = 0;
    Size size = 0;
    EXPECT_EQ(0, AEGetNthPtr(container, 1, typeWildCard, &key, nullptr, nullptr, 0, &size));
    EXPECT_EQ(kKey, key);
    EXPECT_EQ(5, size);
    EXPECT_EQ(0, AEDeleteParam(container, kKey));
    EXPECT_EQ(errAEDescNotFound, AEDeleteParam(container, kKey));
    EXPECT_EQ(errAEDescNotFound, AESizeOfParam(container, kKey, nullptr, nullptr));
  }
}

// So many keys that their short hashes collide.
TEST_F(Record, FindsEachOfManyKeysInAnyOrder) {
  constexpr SInt32 kCount = 200;
  StDesc record;
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  const auto get = [&](SInt32 key) {
    SInt32 value = -1;
    const OSErr err = AEGetKeyPtr(&record, static_cast<AEKeyword>(key), typeSInt32, nullptr, &value,
                                  sizeof value, nullptr);
    return err == 0 ? value : err;
  };
  for (SInt32 key = 0; key < kCount; ++key) {
    EXPECT_EQ(errAEDescNotFound, get(key));
    ASSERT_EQ(0, AEPutKeyPtr(&record, static_cast<AEKeyword>(key), typeSInt32, &key, sizeof key));
  }
  for (SInt32 key = kCount; key-- > 0;) EXPECT_EQ(key, get(key));
  for (SInt32 key = 0; key < kCount; key += 2) {
    EXPECT_EQ(0, AEDeleteKeyDesc(&record, static_cast<AEKeyword>(key)));
  }
  for (SInt32 step = 1; step <= kCount; ++step) {
    const SInt32 key = step * 77 % kCount;
    EXPECT_EQ(key % 2 == 0 ? errAEDescNotFound : key, get(key));
  }
  StDesc copy;
  EXPECT_EQ(0, AEDuplicateDesc(&record, &copy));
  EXPECT_EQ(0, AESizeOfKeyDesc(&copy, kCount - 1, nullptr, nullptr));
  EXPECT_EQ(errAEDescNotFound, AESizeOfKeyDesc(&copy, kCount - 2, nullptr, nullptr));
}

TEST_F(Param, ReadingCutsTheValueToTheLimitAndGivesItsFullSize) {
  StEvent event;
  const SInt16 five[] = {1, 2, 3, 4, 5};
  ASSERT_EQ(0, AEPutParamPtr(&event, kKey, typeSInt16, five, sizeof five));
  ASSERT_EQ(0, AEPutParamPtr(&event, kOther, typeChar, "-50", 3));
  const struct {
    AEKeyword key;
    DescType want;
    Size max;
    OSErr err;
    DescType type;  // 0xFF.. when untouched
    Size size;
    size_t copied;
  } rows[] = {
      {kKey, typeSInt16, 10, 0, typeSInt16, 10, 10},
      {kKey, typeSInt16, 4, 0, typeSInt16, 10, 4},  // cut without an error
      {kKey, typeSInt16, -1, paramErr, 0xFFFFFFFF, -1, 0},
      {kKey, typeSInt32, 64, errAECoercionFail, 0xFFFFFFFF, -1, 0},  // five, not one
      {kOther, typeSInt32, 2, 0, typeSInt32, 4, 2},                  // the coerced value is cut
      {kOther, typeAEList, 64, 0, typeAEList, 0, 0},
      {FourCC('n', 'o', 'n', 'e'), typeWildCard, 64, errAEDescNotFound, 0xFFFFFFFF, -1, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(CodeText(row.key) + " as " + CodeText(row.want));
    DescType type = 0xFFFFFFFF;
    Size size = -1;
    std::string buffer(64, '#');
    EXPECT_EQ(row.err,
              AEGetParamPtr(&event, row.key, row.want, &type, buffer.data(), row.max, &size));
    EXPECT_EQ(row.type, type);
    EXPECT_EQ(row.size, size);
    EXPECT_EQ(std::string(64 - row.copied, '#'), buffer.substr(row.copied));
    EXPECT_EQ(row.err,
              AEGetParamPtr(&event, row.key, row.want, nullptr, nullptr, row.max, nullptr));
  }
}

// Sizes around those that are kept or copied in another way, buffers around each size.
TEST_F(Param, NothingIsWrittenAfterABuffersEnd) {
  for (const size_t size : {1, 2, 3, 4, 7, 8, 9, 15, 16, 17, 200}) {
    std::string bytes;
    for (size_t i = 0; i < size; i++) bytes += static_cast<char>('a' + i % 26);
    StEvent event;
    StDesc desc;
    Make(Text(bytes), &desc);
    ASSERT_EQ(0, AEPutParamDesc(&event, kKey, &desc));
    ASSERT_EQ(0, AEPutAttributeDesc(&event, kKey, &desc));
    for (const size_t room : {size - 1, size, size + 1}) {
      SCOPED_TRACE(testing::Message() << size << " bytes into " << room);
      const std::string expected =
          bytes.substr(0, room) + std::string(256 - std::min(size, room), '#');
      for (const bool isAttribute : {true, false}) {
        std::string buffer(256, '#');
        Size whole = 0;
        EXPECT_EQ(0, (isAttribute ? AEGetAttributePtr : AEGetParamPtr)(
                         &event, kKey, typeChar, nullptr, buffer.data(), static_cast<Size>(room),
                         &whole));
        EXPECT_EQ(expected, buffer);
        EXPECT_EQ(size, static_cast<size_t>(whole));
      }
      std::string buffer(256, '#');
      EXPECT_EQ(0, AEGetDescData(&desc, buffer.data(), static_cast<Size>(room)));
      EXPECT_EQ(expected, buffer);
    }
  }
  // An attribute with a field of its own.
  StEvent event;
  for (const Size room : {1, 2, 3}) {
    std::string buffer(4, '#');
    Size whole = 0;
    EXPECT_EQ(0, AEGetAttributePtr(&event, keyReturnIDAttr, typeSInt16, nullptr, buffer.data(),
                                   room, &whole));
    EXPECT_EQ(2, whole);
    EXPECT_EQ(room == 1, buffer[1] == '#');
    EXPECT_EQ("##", buffer.substr(2));
  }
}

TEST_F(Param, WrongKindsOfContainerGetTheirErrors) {
  StDesc null, value, list, record;
  Make(Long(1), &value);
  MakeList({1}, &list);
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  const std::tuple<const char*, AEDesc*, OSErr, OSErr, OSErr, OSErr> rows[] = {
      {"null", &null, errAENotAEDesc, errAENotAEDesc, errAENotAEDesc, errAENotAEDesc},
      {"value", &value, errAEWrongDataType, errAEWrongDataType, errAEWrongDataType,
       errAENotAppleEvent},
      {"list", &list, errAEWrongDataType, 0, 0, errAENotAppleEvent},
      {"record", &record, errAEDescNotFound, errAEDescNotFound, errAEWrongDataType,
       errAENotAppleEvent},
      {"none", nullptr, paramErr, paramErr, paramErr, paramErr},
  };
  for (const auto& [what, container, keyed, indexed, put, attribute] : rows) {
    SCOPED_TRACE(what);
    char buffer[16];
    const SInt32 number = 5;
    EXPECT_EQ(keyed, AEGetParamPtr(container, kKey, typeWildCard, nullptr, buffer, 16, nullptr));
    EXPECT_EQ(indexed,
              AEGetNthPtr(container, 1, typeWildCard, nullptr, nullptr, buffer, 16, nullptr));
    EXPECT_EQ(put, AEPutPtr(container, 1, typeSInt32, &number, sizeof number));
    EXPECT_EQ(attribute, AEGetAttributePtr(container, keyEventClassAttr, typeWildCard, nullptr,
                                           buffer, 16, nullptr));
    EXPECT_EQ(attribute,
              AEPutAttributePtr(container, keyTimeoutAttr, typeSInt32, &number, sizeof number));
  }
}

TEST_F(Nesting, BeyondTheLimitIsRefused) {
  StDesc deep, event, record;
  MakeList({1}, &deep);
  // Until the list has as many levels as are allowed.
  for (int levels = 1; levels < kHostNestingLimit; ++levels) {
    StDesc outer;
    MakeList({}, &outer);
    ASSERT_EQ(0, AEPutDesc(&outer, 0, &deep)) << levels;
    AEDisposeDesc(&deep);
    ASSERT_EQ(0, AEDuplicateDesc(&outer, &deep));
  }
  StDesc outer, coerced;
  MakeList({1}, &outer);
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  ASSERT_EQ(0, AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 0, &event));
  EXPECT_EQ(errAEBadListItem, AEPutDesc(&outer, 0, &deep));
  EXPECT_EQ(errAEBadListItem, AEPutDesc(&outer, 1, &deep));
  EXPECT_EQ(errAEBadListItem, AEPutParamDesc(&record, kKey, &deep));
  EXPECT_EQ(errAEBadListItem, AEPutParamDesc(&event, kKey, &deep));
  EXPECT_EQ(errAEBadListItem, AEPutAttributeDesc(&event, kKey, &deep));
  EXPECT_EQ("[ 1 ]", Printed(outer));

  // The innermost value is still there, through all of them.
  EXPECT_EQ(0, AECoerceDesc(&deep, typeChar, &coerced));
  EXPECT_EQ(Text("1"), Contents(coerced));

  // A list that is no longer deep may be put.
  EXPECT_EQ(0, AEPutPtr(&deep, 1, typeBoolean, "\1", 1));
  EXPECT_EQ(0, AEPutDesc(&outer, 0, &deep));
  EXPECT_EQ("[ 1, [ 'true' ] ]", Printed(outer));
}

}  // namespace
