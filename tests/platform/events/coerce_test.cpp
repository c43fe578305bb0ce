#include <cmath>
#include <limits>
#include <utility>

#include "tests/platform/events/support.h"

namespace {

using Coerce = DescTest;

constexpr float kFloatMax = std::numeric_limits<float>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Coerces outside of any container, by descriptor and by pointer, and through a list of one item:
// the same each time. A failure is { typeNull, "error" }.
Raw Coerced(const Raw& from, DescType toType) {
  StDesc source, list, result;
  Make(from, &source);
  const OSErr err = AECoerceDesc(&source, toType, &result);
  const Raw raw = err == 0 ? Contents(result) : Raw{typeNull, std::to_string(err)};
  EXPECT_EQ(err != 0, result.IsNull());

  StDesc byPointer, fromList;
  EXPECT_EQ(err, AECoercePtr(from.type, from.bytes.data(), from.ByteCount(), toType, &byPointer));
  if (err == 0) {
    EXPECT_EQ(raw, Contents(byPointer));
  }
  if (toType == typeWildCard || toType == typeBest) return raw;  // takes the list as it is
  EXPECT_EQ(0, AECreateList(nullptr, 0, false, &list));
  EXPECT_EQ(0, AEPutDesc(&list, 0, &source));
  EXPECT_EQ(err, AECoerceDesc(&list, toType, &fromList));
  if (err == 0) {
    EXPECT_EQ(raw, Contents(fromList));
  }
  return raw;
}

const Raw kFails = {typeNull, "-1700"};

struct Row {
  Raw from;
  Raw to;             // what must come out
  bool exact = true;  // and going back must give `from`
};

void CheckTable(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.from) + " -> " + testing::PrintToString(row.to));
    EXPECT_EQ(row.to, Coerced(row.from, row.to.type));
    if (row.exact) {
      EXPECT_EQ(row.from, Coerced(row.to, row.from.type));
    }
  }
}

void CheckFailures(const std::vector<std::pair<Raw, DescType>>& rows) {
  for (const auto& [from, toType] : rows) {
    SCOPED_TRACE(testing::PrintToString(from) + " -> " + CodeText(toType));
    EXPECT_EQ(kFails, Coerced(from, toType));
  }
}

Raw Extended(std::string_view hex) { return {typeExtended, FromHex(hex)}; }
Raw Quad(std::string_view hex) { return {type128BitFloatingPoint, FromHex(hex)}; }

TEST_F(Coerce, NumbersThatFitAreExact) {
  CheckTable({{Short(-50), Long(-50)},
              {Comp(INT64_MIN), Double(-9223372036854775808.0)},
              {Comp(INT64_MAX), UComp(INT64_MAX)},
              {UComp(UINT64_MAX), Extended("403e ffffffffffffffff")},
              {Comp(INT64_MAX), Quad("403dfffffffffffffffc000000000000")},
              {Long(16777216), Float(16777216)},
              {Double(-0.5), FixedPoint(-0x8000)},
              {Short(-32768), FixedPoint(INT32_MIN)},
              {Double(5e-324), Quad("3bcd0000000000000000000000000000")},
              {Double(-0.0), Quad("80000000000000000000000000000000")}});
}

TEST_F(Coerce, NumbersAreRoundedToTheNearest) {
  const auto rounded = [](const Raw& from, const Raw& to) { return Row{from, to, false}; };
  CheckTable({
      rounded(Double(2.5), Long(2)),  // halves to even
      rounded(Double(0.49999999999999994), Long(0)),
      rounded(Double(-0.3), ULong(0)),
      rounded(Double(1e-310), Float(0)),
      rounded(Comp(9007199254740993), Double(9007199254740992.0)),
      rounded(Double(1.0 / 3), FixedPoint(21845)),
      rounded(Extended("403e ffffffffffffffff"), Double(18446744073709551616.0)),
      rounded(Double(3.4028235677973362e38), Float(kFloatMax)),
  });
}

TEST_F(Coerce, NumbersThatDoNotFitAreRefused) {
  CheckFailures({
      {Long(32768), typeSInt16},
      {UComp(uint64_t{1} << 63), typeSInt64},
      {Double(2147483647.5), typeSInt32},
      {Long(-1), typeUInt16},
      {Double(-0.6), typeUInt32},
      {Double(1e39), typeIEEE32BitFloatingPoint},
      {Double(kInfinity), typeSInt64},
      {Double(std::nan("")), typeSInt16},
      {Quad("5000 0000 0000 0000 0000 0000 0000 0000"), typeIEEE64BitFloatingPoint},
      // A size that is not the type's own, also when it holds several numbers.
      {{typeSInt32, std::string(8, 0)}, typeSInt16},
      {{typeExtended, std::string(16, 0)}, typeSInt32},
  });
  StDesc nan, asFloat;
  Make(Double(std::nan("")), &nan);
  ASSERT_EQ(0, AECoerceDesc(&nan, typeIEEE32BitFloatingPoint, &asFloat));
  float value = 0;
  ASSERT_EQ(0, AEGetDescData(&asFloat, &value, sizeof value));
  EXPECT_TRUE(std::isnan(value));
}

TEST_F(Coerce, NumbersAreWrittenAsTextAndReadFromTextIfAllOfItIsANumber) {
  CheckTable({{UComp(UINT64_MAX), Text("18446744073709551615")},
              {Float(0.1f), Text("0.1")},
              {Double(1e20), Text("100000000000000000000")},
              {Double(1e21), Text("1e+21")},
              {Double(1.7976931348623157e308), Text("1.7976931348623157e+308")},
              {Long(-50), Raw{typeUTF16ExternalRepresentation, std::string("\0-\0005\0000", 6)}}});
  const auto read = [](std::string_view text, const Raw& to) { return Row{Text(text), to, false}; };
  CheckTable({read(" \t+12 ", Long(12)), read("2.500000000000000000000000000001", Long(3)),
              read("9223372036854775807.4", Comp(INT64_MAX)),
              read("0.000000000000000000000000000000000000001e39", Long(1)),
              read("1e-999999999999999999999", Double(0)), read("16777217", Float(16777216))});
  CheckFailures({{Text(""), typeSInt32},
                 {Text("1 2"), typeSInt32},
                 {Text("1e"), typeSInt32},
                 {Text("nan"), typeIEEE64BitFloatingPoint},
                 {Text(std::string_view("1\0", 2)), typeSInt32},
                 {Text("18446744073709551616"), typeUInt64},
                 {Text("1e309"), typeIEEE64BitFloatingPoint},
                 {Double(kInfinity), typeChar},
                 {{typeSInt32, std::string(8, 0)}, typeChar}});
}

TEST_F(Coerce, TextIsConvertedBetweenEncodingsOrRefused) {
  const Raw littleMark = {typeUTF16ExternalRepresentation, FromHex("fffe 6100 e400")};
  CheckTable({
      {Text("a\x8A"), UTF8("a\xC3\xA4")},
      {littleMark, UTF8("a\xC3\xA4"), false},
      {UTF16(u"\uFEFFa\u00E4"), Text("a\x8A"), false},
      {UTF8("\xF0\x9F\x98\x80"), UTF16(u"\U0001F600")},
      {Text("abc"), Raw{typeIntlText, std::string("\0\0\0\0abc", 7)}},
      {UTF8("\xC3\xA4"), Raw{typeIntlText, std::string("\0\0\0\0\x8A", 5)}},
      {Text(std::string(255, 'x')), PText(std::string(255, 'x'))},
      {Raw{typePString, std::string("\2abc", 4)}, Text("ab"), false},  // the length byte decides
  });
  CheckFailures({
      {UTF8("\xF0\x9F\x98\x80"), typeChar},  // Mac Roman has no such character
      {UTF16(u"\xD800"), typeUTF8Text},      // half a pair
      {{typeIntlText, std::string("\0\1\0\0\x88\x9F", 6)}, typeChar},  // another script
      {{typeStyledText, "raw"}, typeSInt32},
      {Text(std::string(256, 'x')), typePString},
      {{typePString, "\4abc"}, typeChar},
      {{typeCString, "abc"}, typeChar},
  });
}

TEST_F(Coerce, StyledTextIsARecord) {
  StDesc text, styled, copy, back;
  Make(UTF8("a\xC3\xA4"), &text);
  ASSERT_EQ(0, AECoerceDesc(&text, typeStyledText, &styled));
  EXPECT_TRUE(AECheckIsRecord(&styled));
  ASSERT_EQ(0, AEGetKeyDesc(&styled, keyAEText, typeWildCard, &copy));
  EXPECT_EQ(Text("a\x8A"), Contents(copy));
  ASSERT_EQ(0, AECoerceDesc(&styled, typeUTF8Text, &back));
  EXPECT_EQ(UTF8("a\xC3\xA4"), Contents(back));
  AEDisposeDesc(&back);
  ASSERT_EQ(0, AEDeleteKeyDesc(&styled, keyAEText));
  EXPECT_EQ(errAECoercionFail, AECoerceDesc(&styled, typeChar, &back));
}

TEST_F(Coerce, BooleansAndCodesBecomeOnlyEachOtherAndText) {
  const UInt32 abcd = FourCC('a', 'b', 'c', 'd');
  CheckTable({{Bool(1), Raw{typeTrue, ""}},
              {Bool(0), Raw{typeFalse, ""}},
              {Bool(1), Code(typeEnumerated, typeTrue)},
              {Bool(1), Short(1)},
              {Bool(7), Short(1), false},
              {Code(typeKeyword, abcd), Code(typeApplSignature, abcd)},
              {Code(typeType, abcd), Text("abcd")},
              {Code(typeType, 0x8A616263), UTF8("\xC3\xA4\x61\x62\x63")}});
  CheckFailures({{Short(2), typeBoolean},
                 {Code(typeEnumerated, abcd), typeBoolean},
                 {Bool(1), typeFalse},
                 {{typeBoolean, ""}, typeSInt16},
                 {Text("abc"), typeType},
                 {Code(typeType, abcd), typeSInt32},
                 {{typeProcessSerialNumber, std::string(8, 0)}, typeKernelProcessID},
                 {{FourCC('x', 'y', 'z', 'w'), "x"}, FourCC('x', 'y', 'z', 'v')}});
}

TEST_F(Coerce, WildcardsAndTheSameTypeCopy) {
  for (const Raw& raw : {Raw{typeSInt32, "odd"}, Text("abc"), Raw{typeUTF8Text, "\xFF"},
                         Raw{FourCC('x', 'y', 'z', 'w'), std::string(40, 'x')}}) {
    EXPECT_EQ(raw, Coerced(raw, typeWildCard));
    EXPECT_EQ(raw, Coerced(raw, typeBest));
    EXPECT_EQ(raw, Coerced(raw, raw.type));
  }
}

TEST_F(Coerce, ListsOfOneItemAreThatItemAndRecordsChangeTheirType) {
  // `from`: n null, v value, 1 list of one value, 2 list of two, r record, e event.
  const std::tuple<const char*, DescType, OSErr, const char*> rows[] = {
      {"n", typeAEList, 0, "[ ]"},
      {"v", typeAEList, 0, "[ 1 ]"},
      {"1", typeSInt32, 0, "1"},
      {"1", typeChar, 0, "\xD2\x31\xD3"},
      {"1", typeBest, 0, "[ 1 ]"},
      {"2", typeSInt32, errAECoercionFail, "'null'()"},
      {"r", typeAEList, 0, "[ { '----':1 } ]"},
      {"r", FourCC('o', 'b', 'j', ' '), 0, "'obj '{ '----':1 }"},
      {"e", typeAERecord, errAECoercionFail, "'null'()"},
  };
  for (const auto& [from, toType, err, printed] : rows) {
    SCOPED_TRACE(std::string(from) + " as " + CodeText(toType));
    StDesc source, result;
    const SInt32 one = 1;
    const char kind = from[0];
    if (kind == 'v') Make(Long(1), &source);
    if (kind == '1' || kind == '2') AECreateList(nullptr, 0, false, &source);
    if (kind == '1' || kind == '2') AEPutPtr(&source, 0, typeSInt32, &one, sizeof one);
    if (kind == '2') AEPutPtr(&source, 0, typeSInt32, &one, sizeof one);
    if (kind == 'r') AECreateList(nullptr, 0, true, &source);
    if (kind == 'e') AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 0, &source);
    if (kind == 'r') AEPutKeyPtr(&source, keyDirectObject, typeSInt32, &one, sizeof one);
    EXPECT_EQ(err, AECoerceDesc(&source, toType, &result));
    EXPECT_EQ(printed, Printed(result));
  }
}

TEST_F(Coerce, PointerRefusesContainersAndBadData) {
  AEDesc out = {typeChar, nullptr};
  EXPECT_EQ(errAECoercionFail, AECoercePtr(typeAEList, "abcd", 4, typeChar, &out));
  EXPECT_EQ(paramErr, AECoercePtr(typeChar, nullptr, 4, typeSInt32, &out));
  EXPECT_EQ(paramErr, AECoercePtr(typeChar, "1", -1, typeSInt32, &out));
  EXPECT_EQ(DescType{typeNull}, out.descriptorType);
}

}  // namespace
