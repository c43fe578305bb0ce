#include "aeport/coercion.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/events/support.h"

namespace {

using Coercions = DescTest;
using TypeLists = DescTest;

constexpr DescType kWild = FourCC('w', 'i', 'l', 'd');
constexpr DescType kBest = FourCC('g', 'o', 'o', 'd');

SInt32 CountOf(const std::vector<DescType>& types) { return static_cast<SInt32>(types.size()); }

TEST_F(TypeLists, ChoosesTheTypeItselfOrWhatStandsForAWildCard) {
  const std::tuple<const char*, DescType, std::vector<DescType>, DescType> rows[] = {
      {"in the list", typeChar, {typeSInt32, typeChar}, typeChar},
      {"anything", typeWildCard, {typeSInt32}, kWild},
      // Meant: the first entry that differs decides, because callers rely on it.
      {"an equal later entry", typeBest, {typeSInt32, typeBest}, kBest},
      {"a wildcard entry is no match", typeChar, {typeWildCard, typeBest}, 0},
  };
  for (const auto& [what, type, list, found] : rows) {
    EXPECT_EQ(found, OSTypeInList(type, list.data(), CountOf(list), kWild, kBest)) << what;
  }
  const DescType one = typeChar;
  EXPECT_EQ(0u, OSTypeInList(typeChar, nullptr, 1, kWild, kBest));
  EXPECT_EQ(0u, OSTypeInList(typeChar, &one, -1, kWild, kBest));
}

// The result of a coercion, and the contents of a destination that held the text "old".
struct Outcome {
  OSStatus err;
  Raw held;
  bool operator==(const Outcome&) const = default;
};
void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.err << ' ' << testing::PrintToString(outcome.held);
}
const Raw kOld = Text("old");
const Outcome kRefused = {errAECoercionFail, kOld};

// One row serves a descriptor and plain bytes alike.
TEST_F(Coercions, AFailureLeavesTheDestinationAlone) {
  const std::tuple<Raw, DescType, Outcome> rows[] = {
      {Long(7), typeSInt32, {0, Long(7)}},
      {Long(7), typeWildCard, {0, Long(7)}},
      {{typeSInt32, "odd"}, typeSInt32, {0, {typeSInt32, "odd"}}},  // copied, not looked at
      {Short(-7), typeSInt32, {0, Long(-7)}},
      {Long(70000), typeSInt16, kRefused},
      {Text("12"), typeSInt32, {0, Long(12)}},
      {Text("abc"), typePString, {0, PText("abc")}},
      {Text(std::string(256, 'x')), typePString, kRefused},
      {Text("abc"), typeCString, {0, CText("abc")}},
      // By way of a text, since there is no direct coercion.
      {Long(-12), typePString, {0, PText("-12")}},
      {Code(typeType, 0x61626364), typeCString, {0, CText("abcd")}},
      {CText("e\x8E"), typeUnicodeText, {0, UTF16(u"e\u00E9")}},
      // The coercion through text is tried once.
      {Text("abc"), typeEncodedString, kRefused},
      {UTF8("\xE4\xB8\xAD"), typePString, kRefused},  // no Mac Roman character
      {Bool(1), typePString, kRefused},               // no text
      // Only these go through text.
      {{typeNull, ""}, typeSInt32, kRefused},
      {{typeNull, ""}, typeNull, {0, {typeNull, ""}}},
      {Text({"a\0b", 3}), typeCString, {0, CText({"a\0b", 3})}},
  };
  for (const auto& [from, target, outcome] : rows) {
    SCOPED_TRACE(testing::PrintToString(from) + " to " + CodeText(target));
    StDesc source, byDesc, byPtr;
    Make(from, &source);
    Make(kOld, &byDesc);
    Make(kOld, &byPtr);
    OSStatus err = AECoerceDescToType(source, target, byDesc);
    EXPECT_EQ(outcome, (Outcome{err, Contents(byDesc)}));
    EXPECT_EQ(from, Contents(source));
    err = AECoercePtrToDesc(from.type, from.bytes.data(), from.ByteCount(), target, byPtr);
    EXPECT_EQ(outcome, (Outcome{err, Contents(byPtr)}));

    // Into the source itself.
    err = AECoerceDescToType(source, target, source);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(err == 0 ? outcome.held : from, Contents(source));
  }
}

TEST_F(Coercions, AListEndsAtTheFirstTypeThatWorks) {
  const struct {
    const char* what;
    Raw source;
    std::vector<DescType> list;
    Outcome outcome;
    DescType wild = kWild, best = kBest;
  } rows[] = {
      {"own type, later in the list", Text("12"), {typeSInt32, typeChar}, {0, Text("12")}},
      {"first that works", Text("12"), {typeBoolean, typeSInt16, typeSInt32}, {0, Short(12)}},
      {"wildcard entry", Long(5), {typeWildCard}, {0, Short(5)}, typeSInt16},
      {"anything goes", Long(5), {typeWildCard}, {0, Long(5)}, typeWildCard},
      {"through text", Long(5), {typeType, typePString}, {0, PText("5")}},
      {"empty list", Text("x"), {}, kRefused},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    StDesc source, byDesc, byPtr;
    Make(row.source, &source);
    Make(kOld, &byDesc);
    Make(kOld, &byPtr);
    OSStatus err = AECoerceDescToTypeList(source, byDesc, row.list.data(), CountOf(row.list),
                                          row.wild, row.best);
    EXPECT_EQ(row.outcome, (Outcome{err, Contents(byDesc)}));
    err = AECoercePtrToTypeList(row.source.type, row.source.bytes.data(), row.source.ByteCount(),
                                byPtr, row.list.data(), CountOf(row.list), row.wild, row.best);
    EXPECT_EQ(row.outcome, (Outcome{err, Contents(byPtr)}));
  }
}

TEST_F(Coercions, ListsOfOneItemCountAsThatItem) {
  StDesc destination;
  StList list;
  EXPECT_EQ(errAECoercionFail, AECoerceDescToType(list, typeSInt32, destination));
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeChar, "12", 2));
  EXPECT_EQ(0, AECoerceDescToType(list, typeSInt32, destination));
  EXPECT_EQ(Long(12), Contents(destination));
  EXPECT_EQ(0, AECoerceDescToType(list, typePString, destination));
  EXPECT_EQ(PText("12"), Contents(destination));
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeChar, "13", 2));
  EXPECT_EQ(errAECoercionFail, AECoerceDescToType(list, typePString, destination));

  // The reverse makes a list of one item.
  SInt32 count = 0;
  const SInt32 five = 5;
  EXPECT_EQ(0, AECoercePtrToDesc(typeSInt32, &five, 4, typeAEList, destination));
  EXPECT_EQ(typeAEList, destination.descriptorType);
  EXPECT_EQ(0, AECountItems(&destination, &count));
  EXPECT_EQ(1, count);
}

TEST_F(Coercions, RefuseNullDescriptorsAndBadSizes) {
  StDesc source, destination;
  Make(Text("abc"), &source);
  const AEDesc stale = source;
  Make(kOld, &destination);
  AEDisposeDesc(&source);
  EXPECT_EQ(errAENotAEDesc, AECoerceDescToType(stale, typePString, destination));
  EXPECT_EQ(kOld, Contents(destination));
  EXPECT_EQ(errAENotAEDesc, AECoerceDescToType(stale, typeChar, destination));
  EXPECT_TRUE(destination.IsNull());

  const std::tuple<DescType, const void*, SInt32, OSStatus> rows[] = {
      {typeSInt32, nullptr, 4, paramErr},
      {typeSInt32, "abcd", -1, paramErr},
      {typeAEList, "abcd", 4, errAEWrongDataType},
      {typeChar, nullptr, 0, 0},
  };
  for (const auto& [type, data, size, err] : rows) {
    SCOPED_TRACE(testing::Message() << CodeText(type) << " " << size);
    StDesc copy, coerced, listed;
    EXPECT_EQ(err, AECopyPtrToDesc(type, data, size, copy));
    EXPECT_EQ(err, AECoercePtrToDesc(type, data, size, typeUTF8Text, coerced));
    const DescType types[] = {typeSInt16, typeUTF8Text};
    EXPECT_EQ(err,
              AECoercePtrToTypeList(type, data, size, listed, types, 2, typeSInt16, typeSInt16));
  }
}

// Two descriptors share one storage: neither is used after the other has been disposed of.
TEST_F(Coercions, MayWriteToTheSourceItself) {
  for (const DescType target : {typeSInt32, typeSInt16, typeWildCard, typePString}) {
    StDesc source;
    Make(Long(5), &source);
    StDesc twin;
    static_cast<AEDesc&>(twin) = source;
    EXPECT_EQ(0, AECoerceDescToType(source, target, twin)) << CodeText(target);
    EXPECT_LT(0, AEGetDescDataSize(&twin)) << CodeText(target);
  }
}

}  // namespace
