#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clients/session_monitor.h"
#include "daemon/running_check.h"
#include "tests/clients/recording_peer.h"
#include "tests/integration/session_daemon.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/session_directory.h"

// The daemon as a client of itself, and as its other clients see it.

namespace {

using Daemon = SessionDaemonProcess;

void ExpectSilentEnd(Daemon& daemon) {
  daemon.ExpectSilentEnd();
  EXPECT_EQ("", TestLogText());
}

TEST(QuitSwitch, StartsAndStops) {
  OpenDescriptorCheck noLeaks;
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-q"}, {"-q", "-lp", "x", "-q"}}) {
    Daemon daemon(words);
    ExpectSilentEnd(daemon);
    EXPECT_TRUE(WaitForNoPort(kSessionDaemonPortName, 0s));
  }
}

TEST(SessionMonitor, IsCheckedAndAskedToQuit) {
  OpenDescriptorCheck noLeaks;
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());
  EXPECT_EQ(0, SMQuitDaemon());  // nobody is there, which counts as done; nobody was started
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());
  EXPECT_EQ(paramErr, SMSetDeviceMonitorExecutable(nullptr));
  Daemon daemon;
  ASSERT_TRUE(daemon.HasPort());
  RunOnThread([] {
    EXPECT_EQ(0, SMCheckDaemonRunning());
    EXPECT_EQ(0, SMVerifyDaemonRunning());
    EXPECT_EQ(0, SMQuitDaemon());
  });
  ExpectSilentEnd(daemon);
  EXPECT_EQ(0, SMQuitDaemon());
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());
}

TEST(SessionMonitor, GetsNothingButTheQuitEvent) {
  RecordingPeer peer(kSessionDaemonPortName);
  ASSERT_TRUE(peer.WaitReady());
  peer.Answer("");
  EXPECT_EQ(0, SMSetSendEventTimeout(60));
  EXPECT_EQ(0, SMQuitDaemon());
  EXPECT_EQ("aevt quit none", peer.Event());
  EXPECT_FALSE(peer.HasEvent());
}

std::string Found() {
  bool runningElsewhere = true;
  int where = 0;
  const OSStatus err = isSessionManagerAlreadyRunning(runningElsewhere, where);
  return std::to_string(err) + (runningElsewhere ? " elsewhere " : " not elsewhere ") +
         std::to_string(where);
}

// The last test: this process becomes the daemon, and stays one that has been it.
TEST(RunningCheck, TellsThisProcessFromOthers) {
  EXPECT_EQ("0 not elsewhere 1", Found());
  {
    Daemon daemon;
    ASSERT_TRUE(daemon.HasPort());
    EXPECT_EQ("0 elsewhere 2", Found());
  }
  EXPECT_EQ("0 not elsewhere 1", Found());
  ASSERT_EQ(0, installAEHandlers());
  EXPECT_EQ("0 not elsewhere 1", Found());
  EXPECT_EQ(0, removeAEHandlers());
  Daemon daemon;
  ASSERT_TRUE(daemon.HasPort());
  EXPECT_EQ("0 not elsewhere 1", Found());  // it is not looked for
}

}  // namespace
