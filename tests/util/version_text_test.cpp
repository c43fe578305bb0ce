#include "util/version_text.h"

#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>

#include <string>

TEST(VersionText, PrintsEveryPackedVersion) {
  const struct {
    UInt32 version;
    bool withStage;
    std::string text;
  } rows[] = {
      {0x01208000, false, "1.2"},
      {0x12346005, true, "12.3.4b5"},
      {0x01004001, true, "1.0a1"},
      {0x01000000, true, std::string("1.0\0\x30", 5)},  // meant: a zero for an unknown stage
      {0xABCD8001, true, ":;.<.=f1"},                   // meant: digits run on behind "9"
      {0xFFFF20FF, true, "\?\?.?.?d255"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.version);
    unsigned char out[16];
    char* text = VersToString(row.version, out, row.withStage);
    EXPECT_EQ(reinterpret_cast<char*>(out + 1), text);
    EXPECT_EQ(row.text, std::string(text, out[0]));
    EXPECT_EQ(0, text[out[0]]);
  }
}

TEST(VersionText, ReadsOneToThreeNumbersAndAStage) {
  const struct {
    const char* text;
    OSErr err;
    UInt32 version;
  } rows[] = {
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
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text != nullptr ? row.text : "(null)");
    UInt32 version = 0;
    EXPECT_EQ(row.err, StringToVers(row.text, version));
    EXPECT_EQ(row.version, version);
  }
}
