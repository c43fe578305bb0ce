#include <gtest/gtest.h>

#include <string>

#include "daemon/session_monitor.h"
#include "util/app_error_utils.h"
#include "util/app_exception.h"

// The entry alone: what it calls is replaced here.

int DaemonMain(int argc, char** argv);

namespace {

enum class Throw { kNothing, kInOptions, kInStart, kSomethingElse };
Throw sThrow = Throw::kNothing;
std::string sSteps;

TEST(DaemonEntry, RunsItsStepsInOrderAndReturnsTheStatus) {
  char name[] = "/usr/bin/some-name";
  char* argv[] = {name, nullptr};
  EXPECT_EQ(7, DaemonMain(1, argv));
  EXPECT_EQ("options 1;logfile;monitor;", sSteps);
  EXPECT_STREQ("some-name", VLTAppErrorUtils::getAppName());
  char* none[] = {nullptr};
  EXPECT_EQ(7, DaemonMain(0, none));
}

TEST(DaemonEntry, AnyExceptionEndsItWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "fast");  // an emulated program cannot start itself
  char name[] = "x";
  char* argv[] = {name, nullptr};
  for (const Throw what : {Throw::kInOptions, Throw::kInStart, Throw::kSomethingElse}) {
    sThrow = what;
    // Nothing is said: the regular expression is the whole of what it may write.
    EXPECT_EXIT(DaemonMain(1, argv), testing::ExitedWithCode(1), "^$");
  }
  sThrow = Throw::kNothing;
}

}  // namespace

void ParseSessionDaemonOptions(int argc, char**) {
  sSteps += "options " + std::to_string(argc) + ";";
  if (sThrow == Throw::kInOptions) throw VLTAppException(-1);
}

OSStatus SetSessionDaemonLogfileName() {
  sSteps += "logfile;";
  return -5;  // does not matter
}

int sessionMonitor() {
  sSteps += "monitor;";
  if (sThrow == Throw::kInStart) throw VLTAppException(-108);
  if (sThrow == Throw::kSomethingElse) throw 3;
  return 7;
}
