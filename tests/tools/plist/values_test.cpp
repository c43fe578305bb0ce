#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tools/plist/date_text.h"
#include "tools/plist/diff.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/merge.h"
#include "tools/plist/path.h"
#include "tools/plist/text.h"
#include "tools/values/json_value.h"

namespace {

// The list that JSON means, for tests: with a failure when it means none.
OwnedRef<CFTypeRef> List(const std::string& json) {
  std::string problem;
  OwnedRef<CFTypeRef> list(CreateFromJson(json, problem));
  EXPECT_NE(nullptr, static_cast<CFTypeRef>(list)) << problem;
  return list;
}

std::string Json(CFTypeRef list) { return list != nullptr ? JsonText(JsonOfPlist(list)) : "none"; }

std::string Text(CFTypeRef list) {
  std::string text;
  WritePlistText(list, [&](std::string_view piece) { text += piece; });
  return text;
}

OwnedRef<CFTypeRef> Leaf(PlistKind kind, const char* text) {
  std::string problem;
  return CreateLeaf(kind, text, problem);
}

}  // namespace

TEST(PlistJson, AcceptsExactlyTheGrammarAndReportsThePositionOfAFault) {
  // `written`: null: refused.
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"{}", "{}", ""},
      {"{\"a\":[1,{\"b\":[true,false]},-0.5],\"c\":\"\"}",
       "{\"a\":[1,{\"b\":[true,false]},-0.5],\"c\":\"\"}", ""},
      {"[1e2,1E+2,0.1,5e-324,123456789.125]", "[100.0,100.0,0.1,5e-324,123456789.125]", ""},
      {"[9007199254740991,-9223372036854775808,18446744073709551615]",
       "[9007199254740991,\"-9223372036854775808\",\"18446744073709551615\"]", ""},
      {"\"\\u00e9\\ud83d\\ude00\\n\\\"\\/\xC3\xA9\"",
       "\"\xC3\xA9\xF0\x9F\x98\x80\\n\\\"/\xC3\xA9\"", ""},
      // Halves of pairs, which UTF-8 does not have, and keys that differ in nothing else.
      {"[\"\\ud800\",\"a\\uDFFF\\ud83d\\ude00\\ud83d\"]",
       "[\"\\ud800\",\"a\\udfff\xF0\x9F\x98\x80\\ud83d\"]", ""},
      {"{\"k\\udbff\":1,\"k\\udc00\":2}", "{\"k\\udbff\":1,\"k\\udc00\":2}", ""},
      {"{\"a\":1,\"a\":2}", "{\"a\":2}", ""},
      {"", nullptr, "line 1, column 1: expected a value"},
      {"[1,\n2,]", nullptr, "line 2, column 3: not a JSON value"},
      {"{\"a\":1,}", nullptr, "expected a key in quotation marks"},
      {"{\"a\" 1}", nullptr, "expected \":\""},
      {"{\"a\":1", nullptr, "expected \",\" or \"}\""},
      {"null", nullptr, "null is not a value of property lists"},
      {"[0,-0,0.5,-0e1]", "[0,0,0.5,-0.0]", ""},
      {"[01]", nullptr, "not a JSON value"},
      {"[-01]", nullptr, "not a JSON value"},
      {"[1.]", nullptr, "expected digits after the decimal point"},
      {"[18446744073709551616]", nullptr, "\"18446744073709551616\" is not an integer"},
      {"1 2", nullptr, "unexpected text after the value"},
      {"\"a", nullptr, "unterminated string"},
      {"\"\x01\"", nullptr, "unescaped control character"},
      {"\"\xFF\"", nullptr, "not UTF-8"},
      {"\"\\u12\"", nullptr, "unknown escape"},
  };
  for (const auto& [json, written, expectedProblem] : rows) {
    SCOPED_TRACE(json);
    std::string problem;
    const OwnedRef<CFTypeRef> list(CreateFromJson(json, problem));
    EXPECT_EQ(written != nullptr ? written : "none", Json(list));
    EXPECT_NE(std::string::npos, problem.find(expectedProblem)) << problem;
  }
}

TEST(PlistJson, WritesInPiecesWhatItWritesAsAWhole) {
  for (const char* json :
       {"1", "[]", "{}", "[[],{},[1,[2]],3]", "{\"a\":{\"b\":[],\"c\":1},\"d\\n\":2}"}) {
    std::string text;
    const OwnedRef<CFTypeRef> list(List(json));
    WritePlistJson(list, [&](std::string_view piece) { text += piece; });
    EXPECT_EQ(json, text);
    EXPECT_EQ(json, Json(list));
  }
}

TEST(PlistJson, RefusesAListThatTakesMoreMemoryThanEightTimesItsText) {
  const auto many = [](const std::string& item, size_t bytes) {
    std::string text = "[" + item;
    while (text.size() < bytes) text += "," + item;
    return text + "]";
  };
  // `isFine`: with 4 MiB that are free; a short text is always read.
  const std::tuple<const char*, size_t, bool> rows[] = {
      {"[]", 50000, true},
      {"[]", 1 << 20, false},
      {"{}", 1 << 20, false},
      {"{\"a\":1}", 1 << 20, false},
      {"\"\"", 1 << 20, false},
      {"1", 1 << 20, true},
      // Lists as they are in practice, of any length.
      {"123456789", 4 << 20, true},
      {"{\"first\":\"a text\",\"second\":12345.5}", 4 << 20, true},
      {"\"a text that is a little longer than others\"", 4 << 20, true},
  };
  for (const auto& [item, bytes, isFine] : rows) {
    SCOPED_TRACE(item);
    std::string problem;
    const OwnedRef<CFTypeRef> list(CreateFromJson(many(item, bytes), problem));
    EXPECT_EQ(isFine, list != nullptr) << problem;
    EXPECT_EQ(isFine, problem.find("takes too much memory") == std::string::npos) << problem;
  }
}

TEST(PlistJson, RefusesMoreThan512LevelsWithoutRecursion) {
  auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
  EXPECT_EQ(nested(512), Json(List(nested(512))));
  for (size_t levels : {513u, 1000000u}) {
    std::string problem;
    EXPECT_EQ(nullptr, CreateFromJson(nested(levels), problem));
    EXPECT_NE(std::string::npos, problem.find("512 levels")) << problem;
  }
}

TEST(PlistLeaf, TextOfEveryKindReadsBackAsTheSameLeaf) {
  // `again`: null: refused.
  const std::tuple<PlistKind, const char*, const char*> rows[] = {
      {PlistKind::kString, " a<b&c ", " a<b&c "},
      {PlistKind::kInteger, "-9223372036854775808", "-9223372036854775808"},
      {PlistKind::kInteger, "18446744073709551616", nullptr},
      {PlistKind::kInteger, "1</integer><integer>2", nullptr},
      {PlistKind::kReal, "0.30000000000000004", "0.30000000000000004"},
      {PlistKind::kReal, "nan", "NaN"},
      {PlistKind::kBoolean, "yes", "true"},
      {PlistKind::kBoolean, "TRUE", nullptr},
      {PlistKind::kDate, "2005-03-01T12:34:56Z", "2005-03-01T12:34:56Z"},
      {PlistKind::kDate, "2005-03-01T12:34:56.1250Z", "2005-03-01T12:34:56.125Z"},
      {PlistKind::kDate, "2005-03-01T12:34:56.000Z", "2005-03-01T12:34:56Z"},
      // Before 2001 seconds count backwards.
      {PlistKind::kDate, "1999-12-31T23:59:59.9Z", "1999-12-31T23:59:59.9Z"},
      {PlistKind::kDate, "2000-12-31T23:59:59.3Z", "2000-12-31T23:59:59.3Z"},
      {PlistKind::kDate, "2001-01-01T00:00:00.0001Z", "2001-01-01T00:00:00.0001Z"},
      {PlistKind::kDate, "2005-03-01T12:34:56.Z", nullptr},
      {PlistKind::kDate, "2005-03-01T12:34:56.1xZ", nullptr},
      {PlistKind::kDate, "2005-03-01T12:34.5:56Z", nullptr},
      {PlistKind::kDate, "2005-03-01T12:34:56.5", nullptr},
      {PlistKind::kDate, "2005-03-01", nullptr},
      {PlistKind::kData, "AAEC/w==", "AAEC/w=="},
      {PlistKind::kArray, "[]", nullptr},
  };
  for (const auto& [kind, text, again] : rows) {
    SCOPED_TRACE(std::string(KindName(kind)) + " " + text);
    std::string problem;
    const OwnedRef<CFTypeRef> leaf(CreateLeaf(kind, text, problem));
    EXPECT_EQ(again == nullptr, leaf == nullptr);
    EXPECT_EQ(leaf == nullptr, !problem.empty());
    if (leaf == nullptr) continue;
    EXPECT_EQ(kind, KindOf(leaf));
    EXPECT_EQ(again, LeafText(leaf));
    EXPECT_EQ(kind, KindNamed(KindName(kind)));
  }
}

TEST(PlistLeaf, AnArgumentGetsTheTypeOfWhatItReplacesOrLooksLike) {
  const OwnedRef<CFTypeRef> nothing, real(Leaf(PlistKind::kReal, "1")), list(List("[]"));
  const OwnedRef<CFTypeRef> text(Leaf(PlistKind::kString, "x"));
  // `kind`: kNone: refused.
  const std::tuple<const char*, CFTypeRef, PlistKind, const char*> rows[] = {
      {"5", nothing, PlistKind::kInteger, "5"},
      {"5", real, PlistKind::kReal, "5.0"},
      {"5", text, PlistKind::kString, "\"5\""},
      {"5", list, PlistKind::kNone, ""},
      {"{}", list, PlistKind::kNone, ""},
      {"[5]", list, PlistKind::kArray, "[5]"},
      {"\"5\"", nothing, PlistKind::kString, "\"5\""},
      {"{\"a\":1}", nothing, PlistKind::kDictionary, "{\"a\":1}"},
      {"{ a = 1; }", nothing, PlistKind::kDictionary, "{\"a\":\"1\"}"},
      {"{ a = ", nothing, PlistKind::kNone, ""},
      {"<0fbd>", nothing, PlistKind::kData, "\"D70=\""},
      {"<date>2020-01-01T00:00:00Z</date>", nothing, PlistKind::kDate, "\"2020-01-01T00:00:00Z\""},
  };
  for (const auto& [word, replaced, kind, json] : rows) {
    SCOPED_TRACE(word);
    std::string problem;
    const OwnedRef<CFTypeRef> value(CreateValueOfType("", word, replaced, problem));
    EXPECT_EQ(kind, KindOf(value));
    EXPECT_EQ(value == nullptr, !problem.empty()) << problem;
    EXPECT_TRUE(value == nullptr || Json(value) == json) << Json(value);
  }
}

TEST(PlistPath, TextReadsBackWithEscapedDotsAndBackslashes) {
  const std::tuple<const char*, bool, PlistPath> rows[] = {
      {"", true, {}},        {"a", true, {"a"}}, {"com\\.example.x", true, {"com.example", "x"}},
      {".", true, {"", ""}}, {"a\\", false, {}}, {"a\\\\b.\\.", true, {"a\\b", "."}},
  };
  for (const auto& [text, isFine, expectedPath] : rows) {
    PlistPath path;
    EXPECT_EQ(isFine, ParsePlistPath(text, path)) << text;
    if (!isFine) continue;
    EXPECT_EQ(expectedPath, path) << text;
    EXPECT_EQ(text, PlistPathText(path));
  }
}

TEST(PlistPath, AChangeThatFailsLeavesTheListAloneAndSaysWhy) {
  // `result`: what the list is then; or the problem.
  const std::tuple<const char*, PlistChange, const char*> rows[] = {
      {"b", PlistChange::kSet, "{\"a\":{},\"l\":[1,2],\"b\":9}"},
      {"a.b", PlistChange::kSet, "{\"a\":{\"b\":9},\"l\":[1,2]}"},
      {"l.2", PlistChange::kSet, "{\"a\":{},\"l\":[1,2,9]}"},
      {"l.0", PlistChange::kInsert, "{\"a\":{},\"l\":[9,1,2]}"},
      {"l.1", PlistChange::kRemove, "{\"a\":{},\"l\":[1]}"},
      {"a", PlistChange::kRemove, "{\"l\":[1,2]}"},
      {"a", PlistChange::kInsert, "a exists already"},
      {"l.2", PlistChange::kRemove, "l is an array of 2 and has no index \"2\""},
      {"l.-1", PlistChange::kSet, "l is an array of 2 and has no index \"-1\""},
      {"l.0.x", PlistChange::kSet, "l.0 is an integer and contains nothing"},
      {"a.z", PlistChange::kRemove, "a has no key \"z\""},
  };
  for (const auto& [expectedPath, change, result] : rows) {
    SCOPED_TRACE(expectedPath);
    const OwnedRef<CFTypeRef> list(List("{\"a\":{},\"l\":[1,2]}"));
    const OwnedRef<CFTypeRef> value(List("9"));
    PlistPath path;
    std::string problem;
    ASSERT_TRUE(ParsePlistPath(expectedPath, path));
    const bool isDone = ChangePlist(list, path, change, value, problem);
    EXPECT_EQ(result, isDone ? Json(list) : problem);
    EXPECT_TRUE(isDone || Json(list) == "{\"a\":{},\"l\":[1,2]}");
  }
}

TEST(PlistDiff, ReportsEachDifferenceOnceInOrder) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"{\"a\":[1,{\"b\":2}]}", "{\"a\":[1,{\"b\":2}]}", ""},
      {"{\"a\":1,\"b\":2}", "{\"b\":2,\"a\":1}", ""},
      {"1", "1.0", "=1>1.0 "},
      {"[0.0,-0.0,1e999]", "[-0.0,-0.0,1e999]", "0=0.0>-0.0 "},
      {"{\"a.b\":1,\"c\":2}", "{\"c\":3,\"d\":4}", "a\\.b=1> c=2>3 d=>4 "},
      {"[1,[2,3]]", "[1,[2],4]", "1.1=3> 2=>4 "},
      {"{\"a\":true}", "{\"a\":1}", "a=true>1 "},
  };
  for (const auto& [from, to, differences] : rows) {
    const OwnedRef<CFTypeRef> before(List(from)), after(List(to));
    std::string told;
    DiffPlists(before, after, [&](const PlistDifference& difference) {
      told += difference.path + "=" + (difference.before ? Json(difference.before) : "") + ">" +
              (difference.after ? Json(difference.after) : "") + " ";
    });
    EXPECT_EQ(differences, told);
  }
}

// Every time of a double reads back from its text, and two times that differ have two texts.
TEST(PlistDate, TextKeepsAllDigitsOfATime) {
  std::mt19937_64 random(20010101);
  for (int i = 0; i < 2000; i++) {
    const double scale = std::pow(10, static_cast<int>(random() % 18) - 7);
    double time = (static_cast<double>(random() % 2000001) - 1e6) / 1e6 * scale;
    if (i % 3 == 0) time = std::nextafter(time, 0);
    const OwnedRef<CFDateRef> date(CFDateCreate(nullptr, time));
    std::string problem;
    const OwnedRef<CFDateRef> again(CreateDate(DateText(date), problem));
    ASSERT_NE(nullptr, static_cast<CFDateRef>(again)) << time << " " << DateText(date);
    ASSERT_EQ(time, CFDateGetAbsoluteTime(again)) << DateText(date);
    ASSERT_EQ(HasFraction(date), DateText(date).find('.') != std::string::npos);
  }
}

TEST(PlistMerge, TakesTheChangesOfBothSidesAndListsConflicts) {
  const struct {
    const char* base;
    const char* ours;
    const char* theirs;
    const char* merged;  // with the values of ours where both differ
    const char* conflicts;
  } rows[] = {
      {"{\"a\":1}", "{\"a\":1}", "{\"a\":2}", "{\"a\":2}", ""},
      {"{\"a\":1}", "{\"a\":2}", "{\"a\":1}", "{\"a\":2}", ""},
      {"{\"a\":1}", "{\"a\":2}", "{\"a\":2}", "{\"a\":2}", ""},
      {"{\"a\":1}", "{\"a\":2}", "{\"a\":3}", "{\"a\":2}", "a=1,2,3 "},
      {"{\"a\":1}", "{\"a\":1.0}", "{\"a\":1}", "{\"a\":1.0}", ""},  // 1 is not 1.0
      {"{\"a\":0.0}", "{\"a\":0.0}", "{\"a\":-0.0}", "{\"a\":-0.0}", ""},
      {"{}", "{\"a\":1}", "{\"b\":2}", "{\"a\":1,\"b\":2}", ""},
      {"{}", "{\"a\":{\"x\":1}}", "{\"a\":{\"y\":2}}", "{\"a\":{\"x\":1,\"y\":2}}", ""},
      {"{}", "{\"a\":1}", "{\"a\":2}", "{\"a\":1}", "a=none,1,2 "},
      {"{\"a\":1,\"b\":2}", "{\"b\":2}", "{\"a\":1}", "{}", ""},
      {"{\"a\":1}", "{}", "{\"a\":2}", "{}", "a=1,none,2 "},
      {"{\"a\":{\"x\":1}}", "{}", "{\"a\":{\"x\":1}}", "{}", ""},
      {"{\"a\":{\"x\":1}}", "{}", "{\"a\":{\"x\":2}}", "{}", "a={\"x\":1},none,{\"x\":2} "},
      {"[1,2,3]", "[4,2,3]", "[1,2,5]", "[4,2,5]", ""},
      {"[1,{\"x\":1}]", "[1,{\"x\":2}]", "[2,{\"x\":3}]", "[2,{\"x\":2}]", "1.x=1,2,3 "},
      {"[1,2]", "[1,2,3]", "[1,2]", "[1,2,3]", ""},
      {"[1,2]", "[1,2,3]", "[0,2]", "[1,2,3]", "=[1,2],[1,2,3],[0,2] "},
      {"{\"a.b\":1}", "{\"a.b\":2}", "{\"a.b\":[]}", "{\"a.b\":2}", "a\\.b=1,2,[] "},
      {"1", "{\"a\":1}", "{\"a\":2}", "{\"a\":1}", "=1,{\"a\":1},{\"a\":2} "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.base) + " " + row.ours + " " + row.theirs);
    const OwnedRef<CFTypeRef> base(List(row.base)), ours(List(row.ours)), theirs(List(row.theirs));
    for (const bool prefersTheirs : {false, true}) {
      std::vector<PlistConflict> conflicts;
      const OwnedRef<CFTypeRef> merged(MergePlists(base, ours, theirs, prefersTheirs, conflicts));
      std::string told;
      for (const PlistConflict& conflict : conflicts) {
        told += conflict.path + "=" + Json(conflict.base) + "," + Json(conflict.ours) + "," +
                Json(conflict.theirs) + " ";
      }
      EXPECT_EQ(row.conflicts, told);
      EXPECT_TRUE(Json(merged) == row.merged || (prefersTheirs && !conflicts.empty()))
          << Json(merged);
      // With theirs preferred, it is the same the other way round.
      std::vector<PlistConflict> turned;
      const OwnedRef<CFTypeRef> other(MergePlists(base, theirs, ours, !prefersTheirs, turned));
      EXPECT_TRUE(IsSamePlist(merged, other)) << Json(merged) << Json(other);
    }
  }
}

TEST(PlistMerge, ASortedListHasItsKeysInOrderAtEveryDepth) {
  const OwnedRef<CFTypeRef> list(
      List("{\"b\":[{\"z\":1,\"a\":2}],\"a\":{\"d\":1,\"c\":[2,1]},\"\\uff61\":1,"
           "\"\\ud83d\\ude00\":2,\"B\":3}"));
  EXPECT_EQ(
      "{\"B\":3,\"a\":{\"c\":[2,1],\"d\":1},\"b\":[{\"a\":2,\"z\":1}],"
      "\"\xF0\x9F\x98\x80\":2,\"\xEF\xBD\xA1\":1}",
      Json(SortedPlist(list)));
}

TEST(PlistText, PrintsEachValueOnALineOfItsOwn) {
  const OwnedRef<CFTypeRef> list(List("{\"a b\":[1,\"x\\ny\",{}],\"c\":{\"d\":0.5}}"));
  EXPECT_EQ(
      "{\n  \"a b\" = [\n    1\n    \"x\\ny\"\n    {\n    }\n  ]\n"
      "  c = {\n    d = 0.5\n  }\n}\n",
      Text(list));
  EXPECT_EQ("<00ff>\n", Text(Leaf(PlistKind::kData, "AP8=")));
  EXPECT_EQ("{...} (2)", PlistLine(list));
}
