#include "tools/json_value.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <random>

#include "tests/tools/strict_json.h"

namespace {

TEST(JsonValue, Lines) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const struct {
    JsonValue value;
    const char* line;
  } rows[] = {
      {{}, "null"},
      {JsonValue::Bool(true), "true"},
      {JsonValue::Integer(-9007199254740991), "-9007199254740991"},
      {JsonValue::Integer(9007199254740992), "\"9007199254740992\""},
      {JsonValue::Integer(INT64_MIN), "\"-9223372036854775808\""},
      {JsonValue::Unsigned(9007199254740991), "9007199254740991"},
      {JsonValue::Unsigned(UINT64_MAX), "\"18446744073709551615\""},
      {JsonValue::Real(1.0), "1.0"},
      {JsonValue::Real(-0.0), "-0.0"},
      {JsonValue::Real(0.1f), "0.1"},
      {JsonValue::Real(0.1), "0.1"},
      {JsonValue::Real(1e22), "1e+22"},
      {JsonValue::Real(5e-324), "5e-324"},
      {JsonValue::Real(-kInfinity), "\"-Infinity\""},
      {JsonValue::Real(std::nan("")), "\"NaN\""},
      {"", "\"\""},
      {"a\"\\/\n\x01", "\"a\\\"\\\\/\\n\\u0001\""},
      {"\x7f\xc2\x85\xe2\x80\xa8", "\"\\u007f\\u0085\\u2028\""},
      {"Gr\xc3\xbc\xf0\x9f\x98\x80", "\"Gr\xc3\xbc\xf0\x9f\x98\x80\""},
      {"\xffz\xed\xa0", "\"\xef\xbf\xbdz\xef\xbf\xbd\xef\xbf\xbd\""},
      {"\xed\xa0\x80z\xed\xbf\xbf\xed\x9f\xbf", "\"\\ud800z\\udfff\xed\x9f\xbf\""},
      {std::string("\0", 1), "\"\\u0000\""},
      {JsonValue::Array(), "[]"},
      {JsonValue::Object(), "{}"},
      {JsonValue::Object{{"a", JsonValue::Array{{}, "b", JsonValue::Object()}}, {"", {}}},
       "{\"a\":[null,\"b\",{}],\"\":null}"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.line, JsonText(row.value));
}

TEST(JsonValue, BytesThatAreNoTextStandBesideTheirText) {
  JsonValue value = JsonValue::Object();
  value.AddBytes("a", "fine");
  value.AddBytes("b", "x\xff");
  EXPECT_EQ("{\"a\":\"fine\",\"b\":\"x\xef\xbf\xbd\",\"bHex\":\"78ff\"}", JsonText(value));
  EXPECT_EQ("x\xff", value.Find("b")->Plain());
}

// The checker itself must refuse, else it proves nothing.
TEST(StrictJson, RefusesWhatIsNoJson) {
  for (const char* text : {"",
                           " 1",
                           "1 ",
                           "01",
                           "+1",
                           ".5",
                           "1.",
                           "1e",
                           "-",
                           "nan",
                           "tru",
                           "\"",
                           "\"\x01\"",
                           "\"\\x\"",
                           "\"\\u12\"",
                           "\"\xff\"",
                           "\"\xc0\x80\"",
                           "\"\xed\xa0\x80\"",
                           "\"\xf4\x90\x80\x80\"",
                           "[1,]",
                           "[1 2]",
                           "[",
                           "{1:2}",
                           "{\"a\"}",
                           "{\"a\":1,}",
                           "[]]",
                           "'a'"}) {
    EXPECT_FALSE(StrictJson(text).IsFine()) << text;
  }
}

template <class Number, class Bits>
void ExpectExact(Bits bits) {
  const auto number = std::bit_cast<Number>(bits);
  if (!std::isfinite(number)) return;
  const StrictJson read(JsonText(JsonValue::Real(number)));
  ASSERT_TRUE(read.IsFine());
  const std::string& digits = read.Scalars().at(0);
  Number again = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), again);
  EXPECT_EQ(bits, std::bit_cast<Bits>(again)) << digits;
}

TEST(JsonValue, FloatsReadBackAsTheSameBits) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 2000; ++i) {
    ExpectExact<double, uint64_t>(random());
    ExpectExact<float, uint32_t>(static_cast<uint32_t>(random()));
  }
}

// What is read from the line of a random tree is what went in: names, texts and integers in order.
// Texts of random bytes come out as text, whatever they are.
class RandomTree {
 public:
  explicit RandomTree(uint32_t seed) : random(seed) { root = Make(0); }

  JsonValue root;
  std::vector<std::string> scalars;

 private:
  uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

  std::string Text() {
    std::string text;
    for (uint32_t length = Below(6); length > 0; --length) {
      static const char* const kPieces[] = {"a",
                                            "\"",
                                            "\\",
                                            "\n",
                                            "\x1f",
                                            "\x7f",
                                            "\xc3\xbc",
                                            "\xe2\x80\xa9",
                                            "\xed\xbf\xbf",
                                            "\xef\xbf\xbf",
                                            "\xf4\x8f\xbf\xbf"};
      text += kPieces[Below(std::size(kPieces))];
    }
    scalars.push_back(text);
    return text;
  }

  JsonValue Make(int depth) {
    const uint32_t kind = depth == 0 ? 4 + Below(2) : Below(depth < 6 ? 6 : 4);
    if (kind == 0) return {};
    if (kind == 1) return JsonValue::Bool(Below(2) == 0);
    if (kind == 2) return Text();
    if (kind == 3) {
      const auto number = static_cast<int64_t>(random());
      scalars.push_back(std::to_string(number));
      return JsonValue::Integer(number);
    }
    JsonValue::Array items;
    JsonValue members = JsonValue::Object();
    for (uint32_t count = Below(5); count > 0; --count) {
      if (kind == 4) items.push_back(Make(depth + 1));
      if (kind == 5) {
        const std::string name = Text();
        members.Add(name, Make(depth + 1));
      }
    }
    return kind == 4 ? JsonValue(std::move(items)) : members;
  }

  std::mt19937 random;
};

TEST(JsonValue, WhatIsReadIsWhatWasWritten) {
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const RandomTree tree(seed);
    const std::string line = JsonText(tree.root);
    const StrictJson read(line);
    ASSERT_TRUE(read.IsFine()) << line;
    EXPECT_EQ(tree.scalars, read.Scalars()) << line;
    EXPECT_EQ(std::string::npos, line.find('\n'));
  }
}

TEST(JsonValue, AnyBytesMakeValidJson) {
  std::mt19937 random(2);
  for (int i = 0; i < 2000; ++i) {
    std::string bytes(random() % 12, 0);
    for (char& byte : bytes) byte = static_cast<char>(random() | (random() % 2 ? 0x80u : 0u));
    const StrictJson read(JsonText(bytes));
    ASSERT_TRUE(read.IsFine()) << testing::PrintToString(bytes);
    // Halves of pairs are no UTF-8, and are kept.
    const std::string& text = read.Scalars().at(0);
    const bool isReplaced = text.find("\xef\xbf\xbd") != std::string::npos;
    EXPECT_TRUE(text == bytes || (isReplaced && !IsUtf8(bytes))) << testing::PrintToString(bytes);
  }
}

}  // namespace
