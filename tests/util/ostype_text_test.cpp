#include "util/ostype_text.h"

#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>

TEST(OSTypeText, ACodeIsPrintedInItsFormAndCutToTheBuffer) {
  const std::tuple<OSType, int, const char*> rows[] = {
      {0x74657374, 32, "'test'"}, {0x74657374, 4, "'te"},         {0x7FFF, 32, "32767"},
      {0x8000, 32, "0x00008000"}, {0x41424300, 32, "0x41424300"}, {0x41424380, 32, "0x41424380"},
  };
  for (const auto& [code, size, text] : rows) {
    SCOPED_TRACE(text);
    char out[32] = "unchanged";
    EXPECT_EQ(out, OSTypeToCString(code, out, size));
    EXPECT_STREQ(text, out);
    EXPECT_STREQ(text, OSTypestrcpy(out, code, size));
  }
}

TEST(OSTypeText, AppendingStopsAtTheBuffersEnd) {
  const std::pair<int, const char*> rows[] = {{32, "ab'test'"}, {6, "ab'te"}, {3, "ab"},
                                              {2, "ab"},        {0, "ab"},    {-1, "ab"}};
  for (const auto& [size, text] : rows) {
    char out[32] = "ab";
    EXPECT_EQ(out, OSTypestrcat(out, 0x74657374, size));
    EXPECT_STREQ(text, out) << size;
  }
}

TEST(OSTypeText, NumbersComeBeforeCharacters) {
  const std::tuple<const char*, OSErr, OSType> rows[] = {
      {"abcd", 0, 0x61626364},    // four characters
      {"'ab c'", 0, 0x61622063},  // quoted
      {"'1234'", 0, 0x31323334},  // quoted digits are characters
      {"''''''", 0, 0x27272727},
      {"\xFF\xFE\x80\x61", 0, 0xFFFE8061},
      {"1234", 0, 1234},  // bare digits are a number
      {"-1", 0, 0xFFFFFFFF},
      {" 12ab", 0, 12},
      // Meant: decimal in spite of the prefix, because callers rely on it.
      {"0x1234", 0, 1234},
      {"0x123456789", 0, 12345678},  // eight digits are read
      {"99999999999", 0, 0x7FFFFFFF},
      {"0xff", 0, 0},        // Meant, as above: no decimal digits after the prefix.
      {"abc", paramErr, 7},  // too short
      {"", paramErr, 7},
      {nullptr, paramErr, 7},
  };
  for (const auto& [text, err, expectedCode] : rows) {
    SCOPED_TRACE(testing::PrintToString(text));
    OSType code = 7;
    EXPECT_EQ(err, CStringToOSType(text, code));
    EXPECT_EQ(expectedCode, code);
  }
}
