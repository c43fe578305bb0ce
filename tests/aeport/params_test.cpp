#include "aeport/params.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/platform/events/support.h"

namespace {

using Params = DescTest;

constexpr AEKeyword kKey = FourCC('d', 'a', 't', 'a');
constexpr AEKeyword kAbsent = FourCC('n', 'o', 'n', 'e');

struct TestEvent : StEvent {
  void Put(const Raw& value) {
    ASSERT_EQ(0, AEPutParamPtr(this, kKey, value.type, value.bytes.data(), value.ByteCount()));
  }
  // Returns the parameter uncoerced.
  Raw Held() const {
    StDesc desc;
    EXPECT_EQ(0, AEGetParamDesc(this, kKey, typeWildCard, &desc));
    return Contents(desc);
  }
};

// Calls of the put functions with a value.
template <class Value>
auto Putting(OSErr (*put)(AEDesc*, AEKeyword, const Value*), Value value) {
  return [put, value](AEDesc* event) { return put(event, kKey, &value); };
}
template <class Value>
auto PuttingArray(OSErr (*put)(AEDesc*, AEKeyword, const Value*, SInt32), std::vector<Value> values,
                  SInt32 count) {
  return [put, values, count](AEDesc* event) { return put(event, kKey, values.data(), count); };
}

TEST_F(Params, EachHelperPutsItsTypeAndWidth) {
  using PutBool = OSErr (*)(AEDesc*, AEKeyword, const bool*);
  using PutByte = OSErr (*)(AEDesc*, AEKeyword, const unsigned char*);
  const std::tuple<const char*, std::function<OSErr(AEDesc*)>, Raw> rows[] = {
      {"true", Putting<bool>(PutBool(PutAEBoolean), true), Bool(1)},
      {"raw byte", Putting<unsigned char>(PutByte(PutAEBoolean), 0xA5), Bool(0xA5)},
      {"short", Putting<SInt16>(PutAEShort, -2), Short(-2)},
      {"long", Putting<SInt32>(PutAELong, -70000), Long(-70000)},
      {"comp", Putting<SInt64>(PutAELongLong, -5000000000), Comp(-5000000000)},
      {"unsigned comp", Putting<UInt64>(PutAEUInt64, 0xFFFFFFFFFFFFFFFE), Comp(-2)},
      {"float", Putting<float>(PutAEFloat, 1.5f), Float(1.5f)},
      {"double", Putting<double>(PutAEDouble, -0.1), Double(-0.1)},
      {"type", Putting<OSType>(PutAEOSType, typeChar), Code(typeType, 0x54455854)},
      {"C text", [](AEDesc* e) { return PutAECString(e, kKey, "abc"); }, Text("abc")},
      {"text of a size", PuttingArray<unsigned char>(PutAEText, {'a', 0, 'c'}, 3),
       Text({"a\0c", 3})},
      {"P text",  // its length byte is 3
       [](AEDesc* e) { return PutAEPString(e, kKey, reinterpret_cast<const UInt8*>("\3abcd")); },
       Text("abc")},
      {"nothing", PuttingArray<unsigned char>(PutAEText, {}, 0), Text("")},
      {"shorts",
       PuttingArray<SInt16>(PutAEShortArray, {1, -1}, 2),
       {typeSInt16, Short(1).bytes + Short(-1).bytes}},
      {"longs",
       PuttingArray<SInt32>(PutAELongArray, {1, -1}, 2),
       {typeSInt32, Long(1).bytes + Long(-1).bytes}},
  };
  for (const auto& [what, put, held] : rows) {
    SCOPED_TRACE(what);
    TestEvent event;
    event.Put(Text("what was there"));
    EXPECT_EQ(0, put(&event));
    EXPECT_EQ(held, event.Held());
  }
}

// Reads with a get function; the value is 77 if nothing was stored.
template <class Value>
auto Getting(OSErr (*get)(const AEDesc*, AEKeyword, Value*)) {
  return [get](const AEDesc* event, AEKeyword key, double* value) {
    Value got = 77;
    const OSErr err = get(event, key, &got);
    *value = static_cast<double>(got);
    return err;
  };
}
OSErr GettingFlag(const AEDesc* event, AEKeyword key, double* value) {
  bool flag = true;
  bool other = false;
  const OSErr err = GetAEBoolean(event, key, &flag);
  EXPECT_EQ(err, GetAEBoolean(event, key, &other));
  *value = flag == other ? flag : 77;  // only a written one is the same in both
  return err;
}

TEST_F(Params, EachHelperGetsItsTypeOrWhatCanBecomeIt) {
  using GetByte = OSErr (*)(const AEDesc*, AEKeyword, unsigned char*);
  const auto flag = GettingFlag;
  const auto byte = Getting<unsigned char>(GetByte(GetAEBoolean));
  const auto shorter = Getting<SInt16>(GetAEShort);
  const auto longer = Getting<SInt32>(GetAELong);
  const auto comp = Getting<SInt64>(GetAELongLong);
  const auto uint64 = Getting<UInt64>(GetAEUInt64);
  const auto code = Getting<OSType>(GetAEOSType);
  const auto real = Getting<double>(GetAEParam<double, typeIEEE64BitFloatingPoint>);
  const struct {
    std::function<OSErr(const AEDesc*, AEKeyword, double*)> get;
    Raw held;
    OSErr err;
    double value;
  } rows[] = {
      {flag, Bool(1), 0, 1},
      {flag, Bool(0x80), 0, 1},  // any byte but 0
      {flag, {typeTrue, ""}, 0, 1},
      {flag, {typeBoolean, ""}, 0, 0},          // no byte at all
      {flag, {typeBoolean, "\x00\x01"}, 0, 0},  // the first counts
      {flag, Short(2), errAECoercionFail, 77},  // nothing stored
      {byte, Bool(0x80), 0, 0x80},
      {shorter, Short(-1), 0, -1},
      {shorter, Long(32768), errAECoercionFail, 77},
      {longer, Double(2.5), 0, 2},  // to even
      {longer, Comp(-2147483649), errAECoercionFail, 77},
      {longer, {typeSInt32, Long(7).bytes + Long(8).bytes}, 0, 7},  // the first of two
      {longer, {typeSInt32, ""}, 0, 77},                            // not one byte to store
      {comp, UComp(0x8000000000000000), errAECoercionFail, 77},
      {uint64, Comp(5), 0, 77},  // Meant: never stored, because callers rely on it.
      {uint64, Text("x"), errAECoercionFail, 77},
      {code, Text("abcd"), 0, 0x61626364},
      {code, Long(5), errAECoercionFail, 77},
      {real, Text("1e3"), 0, 1000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(&row - rows) + ": " + testing::PrintToString(row.held));
    TestEvent event;
    event.Put(row.held);
    double value = 0;
    EXPECT_EQ(row.err, row.get(&event, kKey, &value));
    EXPECT_EQ(row.value, value);
    EXPECT_EQ(errAEDescNotFound, row.get(&event, kAbsent, &value));
    EXPECT_EQ(77, value);
    const StDesc none;
    EXPECT_EQ(errAENotAEDesc, row.get(&none, kKey, &value));
    EXPECT_EQ(77, value);
  }
}

TEST_F(Params, TextsAreCutToTheBufferExceptForTheRequiredNul) {
  const std::tuple<SInt32, SInt32, SInt32, SInt32, int> rows[] = {
      {0, 1, 0, 0, 0},
      {3, 10, 3, 3, 3},
      {3, 4, 3, 3, 3},
      // Meant: the NUL is written at the full length and the length byte is not clamped, because
      // callers rely on both.
      {5, 3, 2, 5, 5},
      {5, 1, 0, 5, 5},
      {255, 256, 255, 255, 255},
      {300, 256, 255, 300, 255},  // meant: 255 is the cap, whatever was
                                  // stored
  };
  for (const auto& [length, size, stored, nulAt, lengthByte] : rows) {
    SCOPED_TRACE(testing::Message() << length << " into " << size);
    TestEvent event;
    event.Put(Text(std::string(static_cast<size_t>(length), 'x')));
    // Larger than the size that is passed, since the NUL of a C text may come after it.
    std::string c(400, '#');
    EXPECT_EQ(0, GetAECString(&event, kKey, c.data(), size));
    std::string expected(400, '#');
    expected[0] = 0;  // before it reads
    std::fill_n(expected.begin(), stored, 'x');
    expected[static_cast<size_t>(nulAt)] = 0;
    EXPECT_EQ(Hex(expected), Hex(c));

    std::string p(400, '#');
    EXPECT_EQ(0, GetAEPString(&event, kKey, reinterpret_cast<unsigned char*>(p.data()), size));
    expected.assign(400, '#');
    expected[0] = static_cast<char>(lengthByte);
    std::fill_n(expected.begin() + 1, stored, 'x');
    EXPECT_EQ(Hex(expected), Hex(p));
  }
}

TEST_F(Params, ATextThatCannotBeReadLeavesAnEmptyOne) {
  TestEvent event;
  event.Put({typeType, "abc"});
  char c[4] = "###";
  unsigned char p[4] = {9, 9, 9, 9};
  for (const SInt32 size : {0, -1, std::numeric_limits<SInt32>::min()}) {
    EXPECT_EQ(paramErr, GetAECString(&event, kKey, c, size));
    EXPECT_EQ(paramErr, GetAEPString(&event, kKey, p, size));
  }
  EXPECT_EQ(paramErr, GetAECString(&event, kKey, nullptr, 4));
  EXPECT_EQ(paramErr, GetAEPString(&event, kKey, nullptr, 4));
  EXPECT_EQ('#', c[0]);
  EXPECT_EQ(9, p[0]);
  // From here on the buffer is touched: an empty text.
  EXPECT_EQ(errAECoercionFail, GetAECString(&event, kKey, c, sizeof c));
  EXPECT_EQ(errAECoercionFail, GetAEPString(&event, kKey, p, sizeof p));
  EXPECT_STREQ("", c);
  EXPECT_EQ(0, p[0]);
  EXPECT_EQ('#', c[1]);
}

TEST_F(Params, ArraysStoreWhatFitsAndGiveTheWholeCount) {
  const auto shorts = [](std::initializer_list<SInt16> values) {
    Raw raw = {typeSInt16, ""};
    for (const SInt16 value : values) raw.bytes += Short(value).bytes;
    return raw;
  };
  const Raw odd = {typeSInt16, Short(0x0101).bytes + "\x01"}, longs2 = {typeSInt32, {8, '\0'}};
  // `stored`: of four places filled with 9.
  const std::tuple<const char*, Raw, SInt32, OSErr, SInt32, std::vector<SInt16>> rows[] = {
      {"fits", shorts({1, 2}), 4, 0, 2, {1, 2, 9, 9}},
      {"cut, not the count", shorts({1, 2, 3, 4, 5}), 2, 0, 5, {1, 2, 9, 9}},
      {"an odd byte", odd, 1, 0, 1, {0x0101, 9, 9, 9}},
      {"two longs are no shorts", longs2, 4, errAECoercionFail, 4, {9, 9, 9, 9}},
      {"negative", shorts({1}), -1, paramErr, -1, {9, 9, 9, 9}},
      {"too many to be true", shorts({1}), 0x40000000, paramErr, 0x40000000, {9, 9, 9, 9}},
  };
  for (const auto& [what, held, capacity, err, expectedCount, stored] : rows) {
    SCOPED_TRACE(what);
    TestEvent event;
    event.Put(held);
    std::vector<SInt16> values(4, 9);
    SInt32 count = capacity;
    EXPECT_EQ(err, GetAEShortArray(&event, kKey, values.data(), count));
    EXPECT_EQ(expectedCount, count);
    EXPECT_EQ(stored, values);
  }
  TestEvent event;
  event.Put({typeSInt32, Long(1).bytes + Long(2).bytes + Long(3).bytes});
  SInt32 longs[2] = {}, count = 2;
  EXPECT_EQ(0, GetAELongArray(&event, kKey, longs, count));
  EXPECT_EQ(3, count);
  EXPECT_EQ(2, longs[1]);
  event.Put(Text({"a\0b", 3}));
  unsigned char text[3] = {};
  count = 2;
  EXPECT_EQ(0, GetAEText(&event, kKey, text, count));
  EXPECT_EQ(3, count);
  EXPECT_EQ(0, text[2]);
}

TEST_F(Params, NullPointersGiveAnErrorOrTheSize) {
  TestEvent event;
  event.Put(Short(1));
  SInt32 count = 9;
  EXPECT_EQ(0, GetAELong(&event, kKey, nullptr));
  EXPECT_EQ(0, GetAEBoolean(&event, kKey, static_cast<bool*>(nullptr)));
  EXPECT_EQ(0, GetAEUInt64(&event, kKey, nullptr));
  EXPECT_EQ(0, GetAELongArray(&event, kKey, nullptr, count));
  EXPECT_EQ(1, count);  // how to ask for the size
  EXPECT_EQ(paramErr, GetAELong(nullptr, kKey, &count));

  const OSErr refused[] = {
      PutAEBoolean(&event, kKey, static_cast<const bool*>(nullptr)),
      PutAEShort(&event, kKey, nullptr),
      PutAECString(&event, kKey, nullptr),
      PutAEPString(&event, kKey, nullptr),
      PutAEText(&event, kKey, nullptr, 1),
      PutAEText(&event, kKey, reinterpret_cast<const unsigned char*>("abc"), -1),
      PutAELongArray(&event, kKey, &count, 0x40000001),  // times 4 is 4, cut to 32 bits
      PutAELong(nullptr, kKey, &count),
  };
  for (const OSErr& err : refused) EXPECT_EQ(paramErr, err) << &err - refused;
  EXPECT_EQ(Short(1), event.Held());
  EXPECT_EQ(0, PutAEText(&event, kKey, nullptr, 0));

  StDesc none;
  StList list;
  EXPECT_EQ(errAENotAEDesc, PutAELong(&none, kKey, &count));
  EXPECT_EQ(errAEWrongDataType, PutAELong(&list, kKey, &count));
  EXPECT_EQ(errAEWrongDataType, GetAELong(&list, kKey, &count));
}

TEST_F(Params, ExistenceIsTheResultAlone) {
  TestEvent event;
  StList list;
  for (const bool before : {false, true}) {
    bool exists = before;
    EXPECT_EQ(0, GetAEParamExists(&event, kAbsent, exists));
    event.Put({typeNull, ""});
    EXPECT_EQ(1, GetAEParamExists(&event, kKey, exists));
    EXPECT_EQ(0, AEPutParamDesc(&event, kKey, &list));
    EXPECT_EQ(1, GetAEParamExists(&event, kKey, exists));
    EXPECT_EQ(0, GetAEParamExists(nullptr, kKey, exists));
    EXPECT_EQ(before, exists);  // Meant: only the result is set, because callers rely on it.
  }
}

TEST_F(Params, ACodeNeedsRoomForEightDigitsAndTheNul) {
  std::string bytes(10, '#');
  EXPECT_EQ(paramErr, OSTypeToLongCString(typeChar, bytes.data(), 8));
  EXPECT_EQ(paramErr, OSTypeToLongCString(typeChar, nullptr, 9));
  EXPECT_EQ("##########", bytes);
  EXPECT_EQ(0, OSTypeToLongCString(0xFF5445AB, bytes.data(), 9));
  EXPECT_EQ(std::string("ff5445ab\0#", 10), bytes);
}

}  // namespace
