#include "util/version_text.h"

#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>

#include <string>

TEST(VersionText, PrintsEveryPackedVersion) {
  const std::tuple<UInt32, bool, std::string> rows[] = {
      {0x01208000, false, "1.2"},
      {0x12346005, true, "12.3.4b5"},
      {0x01004001, true, "1.0a1"},
      // Meant: a NUL for an unknown stage and ":" after "9", because callers rely on both.
      {0x01000000, true, std::string("1.0\0\x30", 5)},
      {0xABCD8001, true, ":;.<.=f1"},
      {0xFFFF20FF, true, "\?\?.?.?d255"},
  };
  for (const auto& [version, withStage, given] : rows) {
    SCOPED_TRACE(version);
    unsigned char out[16];
    char* text = VersToString(version, out, withStage);
    EXPECT_EQ(reinterpret_cast<char*>(out + 1), text);
    EXPECT_EQ(given, std::string(text, out[0]));
    EXPECT_EQ(0, text[out[0]]);
  }
}

TEST(VersionText, ReadsOneToThreeNumbersAndAStage) {
  const std::tuple<const char*, OSErr, UInt32> rows[] = {
      {"1.2.3b4", 0, 0x01236004},
      {"1.2x", 0, 0x01208000},  // what follows is ignored
      {"1.2a", paramErr, 0},
      {"1.2a256", 0, 0x01204000},
      {"1.18.19", 0, 0x01238000},  // 4 bits each
      {" 1. 2f 3", 0, 0x01208003},
      {"", paramErr, 0},
      {"99999999999999999999.1", 0, 0xC7108000},  // saturates: 2147483647
      {nullptr, paramErr, 0},
  };
  for (const auto& [text, err, expectedVersion] : rows) {
    SCOPED_TRACE(text != nullptr ? text : "(null)");
    UInt32 version = 0;
    EXPECT_EQ(err, StringToVers(text, version));
    EXPECT_EQ(expectedVersion, version);
  }
}
