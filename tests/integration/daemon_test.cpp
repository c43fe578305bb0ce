#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/aeport/serving.h"
#include "tests/integration/session_daemon.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/session_directory.h"

// The daemon as a program: its command line, its one port, its exit status.

namespace {

using Daemon = SessionDaemonProcess;

OSStatus Send(UInt32 eventClass, UInt32 eventID, SInt32 mode, bool withParameter = false) {
  VLTPortDestinationAddress address(kSessionDaemonPortName);
  VLTPortAppleEvent event(eventClass, eventID, mode, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0 && withParameter) {
    err = AEPutParamPtr(&event.event, keyDirectObject, typeChar, "now", 3);
  }
  if (err == 0) err = event.sendEvent(0, 20 * 60, kAENormalPriority);
  event.finalizeEvent();
  return err;
}

OSStatus SendQuit(SInt32 mode = kAEWaitReply, bool withParameter = false) {
  return Send(kCoreEventClass, kAEQuitApplication, mode, withParameter);
}

TEST(Daemon, ServesUntilItIsAskedToQuit) {
  const struct {
    SInt32 mode;
    bool withParameter;
  } rows[] = {{kAEWaitReply, false}, {kAENoReply, false}, {kAEWaitReply, true}};
  for (const auto& row : rows) {
    OpenDescriptorCheck noLeaks;
    ClearTestLog();
    Daemon daemon;
    ASSERT_TRUE(daemon.HasPort());
    RunOnThread([&] {
      EXPECT_EQ(errAEEventNotHandled, Send(kCoreEventClass, kAEOpenApplication, kAEWaitReply));
      EXPECT_EQ(errAEEventNotHandled, Send(0x01020304, 0, kAEWaitReply));
      EXPECT_EQ(0, Send(kCoreEventClass, kAEOpenApplication, kAENoReply));
      EXPECT_EQ(errAEEventNotHandled, Send(FourCC('C', 'm', 'o', 'N'), kPing, kAEWaitReply, true));
      EXPECT_TRUE(daemon.IsRunning());
      EXPECT_EQ(0, SendQuit(row.mode, row.withParameter));
    });
    daemon.ExpectSilentEnd();
    EXPECT_EQ("", TestLogText());
    EXPECT_TRUE(WaitForNoPort(kSessionDaemonPortName, 0s));
  }
}

TEST(Daemon, ASecondCopyLeavesInSilence) {
  OpenDescriptorCheck noLeaks;
  ClearTestLog();
  Daemon first;
  ASSERT_TRUE(first.HasPort());
  // Also one that would quit at once: it must not reach the first.
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"-q"}}) {
    Daemon second(words);
    second.ExpectSilentEnd();
  }
  EXPECT_EQ("", TestLogText());
  RunOnThread([&] { EXPECT_EQ(errAEEventNotHandled, Ask(kSessionDaemonPortName, kPing).status); });
  EXPECT_TRUE(first.IsRunning());

  first.Kill();
  Daemon heir;  // of a daemon that was killed
  ASSERT_TRUE(heir.HasPort());
  RunOnThread([&] { EXPECT_EQ(0, SendQuit()); });
  heir.ExpectSilentEnd();
}

TEST(Daemon, WhatOnlyLooksLikeTheQuitSwitchIsPassedOver) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-sp", "-q"}, {"-Q", "--q", "-qq", "q", ""}, {"-lp"}}) {
    SCOPED_TRACE(testing::PrintToString(words));
    Daemon daemon(words);
    EXPECT_TRUE(daemon.HasPort());
    RunOnThread([&] { EXPECT_EQ(0, SendQuit()); });
    daemon.ExpectSilentEnd();
  }
}

}  // namespace
