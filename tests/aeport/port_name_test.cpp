#include "aeport/port_name.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

TEST(MakePortName, RefusesANameThatDoesNotFitAndWritesNothing) {
  const std::string base250(250, 'b');
  const std::string base255(255, 'b');
  const std::tuple<const char*, const char*, int, UInt32, OSStatus, std::string> rows[] = {
      {"com.a", nullptr, -1, 128, 0, "com.a"},
      {"com.a", "user", 2, 128, 0, "com.a.user.2"},
      {"com.a", "s", -7, 128, 0, "com.a.s"},
      {"com.a", nullptr, 2147483647, 128, 0, "com.a.2147483647"},
      {"com.a", nullptr, -1, 5, paramErr, ""},  // no room for the terminator
      {"com.a", nullptr, -1, 6, 0, "com.a"},
      {"", "user", 2, 128, paramErr, ""},
      {base250.c_str(), "1234", -1, 1000, 0, base250 + ".1234"},
      {base250.c_str(), "12345", -1, 1000, paramErr, ""},  // 256 characters
      {base255.c_str(), nullptr, -1, 256, 0, base255},
  };
  for (const auto& [base, suffix, instance, size, err, expectedName] : rows) {
    SCOPED_TRACE(expectedName + " " + std::to_string(size));
    char name[1000] = "untouched";
    EXPECT_EQ(err, VLTAEMakePortName(name, size, base, false, suffix, instance));
    EXPECT_EQ(err == 0 ? expectedName : "untouched", name);
  }
  EXPECT_EQ(paramErr, VLTAEMakePortName(nullptr, 128, "com.a", false, nullptr, -1));
}

TEST(MakePortName, TheSerialNumbersLowWordComesFirst) {
  ProcessSerialNumber psn = {};
  ASSERT_EQ(0, GetCurrentProcess(&psn));
  ASSERT_NE(psn.highLongOfPSN, psn.lowLongOfPSN);
  char expected[64];
  std::snprintf(expected, sizeof expected, "a.s.%08" PRIx32 "%08" PRIx32 ".3", psn.lowLongOfPSN,
                psn.highLongOfPSN);
  char name[64] = "";
  EXPECT_EQ(0, VLTAEMakePortName(name, sizeof name, "a", true, "s", 3));
  EXPECT_STREQ(expected, name);
  EXPECT_EQ(std::strlen("a.s.0123456789abcdef.3"), std::strlen(name));
}
