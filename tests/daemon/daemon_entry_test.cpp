#include <gtest/gtest.h>

#include "daemon/session_monitor.h"
#include "util/app_error_utils.h"
#include "util/app_exception.h"

// The entry alone: what it calls is replaced here.

int DaemonMain(int argc, char** argv);

namespace {

enum class Throw { kNothing, kInOptions, kInStart, kSomethingElse };
Throw sThrow = Throw::kNothing;

TEST(DaemonEntry, ExitsWithTheStatusOfTheRunAndWithOneAfterAnyException) {
  GTEST_FLAG_SET(death_test_style, "fast");  // an emulated program cannot start itself
  char name[] = "/usr/bin/some-name";
  char* argv[] = {name, nullptr};
  char* none[] = {nullptr};
  EXPECT_EQ(7, DaemonMain(1, argv));
  EXPECT_STREQ("some-name", VLTAppErrorUtils::getAppName());
  EXPECT_EQ(7, DaemonMain(0, none));
  for (const Throw what : {Throw::kInOptions, Throw::kInStart, Throw::kSomethingElse}) {
    sThrow = what;
    // The expression is all that the program may write: nothing.
    EXPECT_EXIT(DaemonMain(1, argv), testing::ExitedWithCode(1), "^$");
  }
  sThrow = Throw::kNothing;
}

}  // namespace

void ParseSessionDaemonOptions(int, char**) {
  if (sThrow == Throw::kInOptions) throw VLTAppException(-1);
}

OSStatus SetSessionDaemonLogfileName() { return -5; }  // does not matter

int sessionMonitor() {
  if (sThrow == Throw::kInStart) throw VLTAppException(-108);
  if (sThrow == Throw::kSomethingElse) throw 3;
  return 7;
}
