#include "util/app_error_utils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_sink.h"

namespace {

using Lines = std::vector<std::string>;

class AppErrorUtils : public testing::Test {
 protected:
  ~AppErrorUtils() override {
    VLTAppErrorUtils::sSysLogErrs = false;
    VLTAppErrorUtils::sNotificationFlags = 0;
    NMRemove(&VLTAppErrorUtils::sNotificationRecord);
  }

  const TestSink log{"VLTHOST_LOG"}, notices{"VLTHOST_NOTICES"}, stops{"VLTHOST_DEBUGGER"};
};

}  // namespace

TEST_F(AppErrorUtils, NameIsTheLastPartOfThePath) {
  EXPECT_STREQ("(AppNameHere)", VLTAppErrorUtils::getAppName());
  EXPECT_EQ(0, VLTAppErrorUtils::setLogfileName("other", true, "/tmp"));  // changes nothing
  EXPECT_STREQ("/var/log/Veltrane debug.log", VLTAppErrorUtils::sLogFileName);
  const std::pair<const char*, const char*> rows[] = {
      {"/usr/local/bin/daemon", "daemon"}, {"dir/", ""}, {"tool", "tool"}};
  for (const auto& [path, name] : rows) {
    VLTAppErrorUtils::setAppName(path);
    EXPECT_EQ(path, VLTAppErrorUtils::sExecutableName);
    EXPECT_STREQ(name, VLTAppErrorUtils::getAppName());
  }
  VLTAppErrorUtils::setAppName(nullptr);
  EXPECT_STREQ("tool", VLTAppErrorUtils::getAppName());
}

TEST_F(AppErrorUtils, AnIOStatusIsPrintedFieldByField) {
  const std::pair<UInt32, const char*> rows[] = {{0xE00002C2, "(sys=38, sub=0, code=2c2)"},
                                                 {0xFFFFFFFF, "(sys=3f, sub=fff, code=3fff)"},
                                                 {0x04004001, "(sys=1, sub=1, code=1)"}};
  const char* shared = VLTAppErrorUtils::logIOReturn(0);
  for (const auto& [status, text] : rows) {
    EXPECT_STREQ(text, VLTAppErrorUtils::logIOReturn(static_cast<SInt32>(status)));
    EXPECT_STREQ(text, shared);
  }
}

TEST_F(AppErrorUtils, ReportsStopInTheDebuggerLoggedOrNot) {
  VLTAppErrorUtils::reportError("who", "what", "file.cpp", 12, true);
  EXPECT_TRUE(log.Lines().empty());
  VLTAppErrorUtils::sSysLogErrs = true;
  VLTAppErrorUtils::reportError("who", "what", "file.cpp", -12, false);
  EXPECT_EQ((Lines{"404 who Assert Failed: file.cpp line -12 : what"}), log.Lines());
  EXPECT_EQ((Lines{"Debugger", "Debugger"}), stops.Lines());
  EXPECT_TRUE(notices.Lines().empty());
}

TEST_F(AppErrorUtils, ReportsWithANoticeLogTheLengthByteToo) {
  VLTAppErrorUtils::sSysLogErrs = true;
  std::string text = "\2xymore";
  EXPECT_EQ(0, VLTAppErrorUtils::reportErrorNotify("who", text.data(), "f", 1, false));
  EXPECT_EQ((Lines{"404 who Assert Failed: f line 1 : \x02xy", "5 xy"}), log.Lines());
  EXPECT_EQ((Lines{"xy"}), notices.Lines());
  EXPECT_EQ(1u, stops.Lines().size());
}

TEST_F(AppErrorUtils, NoticesArePostedUnlessTheBusyBitIsSet) {
  unsigned char first[] =
      "\x05"
      "first",
                second[] = "\x06second";
  EXPECT_EQ(0, VLTAppErrorUtils::userNotify(first));
  // Meant: the busy bit is cleared at once, because callers rely on it.
  EXPECT_EQ(0u, VLTAppErrorUtils::sNotificationFlags);
  EXPECT_EQ(first, VLTAppErrorUtils::sNotificationRecord.nmStr);
  EXPECT_EQ(0, VLTAppErrorUtils::userNotify(second));
  VLTAppErrorUtils::sNotificationFlags = 3;  // a busy bit that is set stays
  EXPECT_EQ(0, VLTAppErrorUtils::userNotify(first));
  EXPECT_EQ((Lines{"first", "second"}), notices.Lines());
  // Meant: completion stores the word from before it cleared the bit, because callers rely on it.
  VLTAppErrorUtils::notifyNMCompletion(&VLTAppErrorUtils::sNotificationRecord);
  EXPECT_EQ(3u, VLTAppErrorUtils::sNotificationFlags);
}
