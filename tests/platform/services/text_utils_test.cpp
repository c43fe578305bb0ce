#include <CoreServices/TextUtils.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

struct PString {
  explicit PString(const std::string& text) {
    bytes[0] = static_cast<unsigned char>(text.size());
    memcpy(bytes + 1, text.data(), text.size());
  }
  Str255 bytes;
};

std::string TextOf(ConstStr255Param text) {
  return std::string(reinterpret_cast<const char*>(text + 1), text[0]);
}

}  // namespace

TEST(TextUtils, ComparisonIgnoresCaseAndMarksIfTold) {
  const struct {
    const char *a, *b;
    // By [case sensitive][marks sensitive].
    int result[2][2];
  } rows[] = {
      {"", "", {{0, 0}, {0, 0}}},
      {"", "a", {{-1, -1}, {-1, -1}}},
      {"abc", "ABC", {{0, 0}, {1, 1}}},
      {"a", "B", {{-1, -1}, {1, 1}}},       // folded before they are compared
      {"_", "a", {{1, 1}, {-1, -1}}},       // "_" lies between the two cases
      {"\x8E", "e", {{0, 1}, {0, 1}}},      // e acute
      {"\x8E", "\x83", {{0, 0}, {1, 1}}},   // and its capital
      {"\xD8", "\xD9", {{0, 0}, {1, -1}}},  // y diaeresis
      {"\xCF", "\xCE", {{0, 0}, {1, 1}}},   // oe ligature
      {"\xF0", "a", {{1, 1}, {1, 1}}},      // bytes count as unsigned
  };
  for (const auto& row : rows) {
    const PString a(row.a), b(row.b);
    for (int caseSensitive = 0; caseSensitive < 2; ++caseSensitive) {
      for (int diacSensitive = 0; diacSensitive < 2; ++diacSensitive) {
        SCOPED_TRACE(testing::Message()
                     << testing::PrintToString(row.a) << " " << testing::PrintToString(row.b) << " "
                     << caseSensitive << diacSensitive);
        const int expected = row.result[caseSensitive][diacSensitive];
        const auto cased = static_cast<Boolean>(caseSensitive);
        const auto marked = static_cast<Boolean>(diacSensitive);
        EXPECT_EQ(expected, RelString(a.bytes, b.bytes, cased, marked));
        EXPECT_EQ(-expected, RelString(b.bytes, a.bytes, cased, marked));
        EXPECT_EQ(expected == 0, EqualString(a.bytes, b.bytes, cased, marked));
      }
    }
  }
}

TEST(TextUtils, UpperCaseKeepsOrStripsMarks) {
  PString kept("az\x8E\xBE{");
  UpperString(kept.bytes, true);
  EXPECT_EQ("AZ\x83\xAE{", TextOf(kept.bytes));
  PString stripped("az\x8E\xBE{");
  UpperString(stripped.bytes, false);
  EXPECT_EQ("AZEA{", TextOf(stripped.bytes));
}

TEST(TextUtils, NumbersAreReadUpToTheFirstOtherCharacterAndWritten) {
  const struct {
    const char* text;
    SInt32 number;
    bool isWritten;  // of the number
  } rows[] = {{"0", 0, true},
              {"2147483647", INT32_MAX, true},
              {"-2147483648", INT32_MIN, true},
              {"", 0, false},
              {"+12", 12, false},
              {"-", 0, false},
              {"12x3", 12, false},
              {"4294967297", 1, false},
              {" 1", 0, false}};
  for (const auto& row : rows) {
    SInt32 number = 7;
    StringToNum(PString(row.text).bytes, &number);
    EXPECT_EQ(row.number, number) << row.text;
    Str255 text;
    NumToString(row.number, text);
    EXPECT_EQ(row.isWritten, TextOf(text) == row.text);
  }
}

TEST(TextUtils, CAndPascalTextsAreConvertedInPlaceAndCut) {
  const std::string longText(300, 'x');
  Str255 pascal;
  CopyCStringToPascal(longText.c_str(), pascal);
  EXPECT_EQ(std::string(255, 'x'), TextOf(pascal));
  char inPlace[256] = "abc";
  c2pstrcpy(reinterpret_cast<StringPtr>(inPlace), inPlace);
  EXPECT_EQ("abc", TextOf(reinterpret_cast<StringPtr>(inPlace)));
  CopyPascalStringToC(reinterpret_cast<StringPtr>(inPlace), inPlace);
  EXPECT_STREQ("abc", inPlace);
  char full[256];
  CopyPascalStringToC(pascal, full);
  EXPECT_EQ(255u, strlen(full));
}
