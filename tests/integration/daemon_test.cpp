#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "clients/session_monitor.h"
#include "daemon/event_service.h"
#include "daemon/running_check.h"
#include "tests/aeport/serving.h"
#include "tests/clients/login_session.h"
#include "tests/clients/recording_peer.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/session_directory.h"
#include "tests/support/test_role.h"

// The daemon as a program (command line, port, exit status) and through its clients' functions.

namespace {

// The session daemon as a program. The destructor kills it.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& words = {}) {
    ChildOptions options;
    options.arguments = TestLauncher();
    options.arguments.push_back(VLTSESSIOND_PROGRAM);
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.capture = true;
    EXPECT_TRUE(child.Start(options));
  }
  bool HasPort() const { return WaitForPort(kSessionDaemonPortName, 20s); }
  bool IsRunning() { return !child.Wait(0ms); }
  void Kill() { child.KillAndWait(20s); }
  // Waits until it has ended by itself, with status 0 and without output.
  void ExpectSilentEnd() {
    EXPECT_EQ(0, child.Wait(20s));
    EXPECT_EQ("", child.Output() + child.Errors());
    EXPECT_EQ("", TestLogText());
  }

 private:
  ChildProcess child;
};

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
  const std::tuple<SInt32, bool> rows[] = {
      {kAEWaitReply, false}, {kAENoReply, false}, {kAEWaitReply, true}};
  for (const auto& [mode, withParameter] : rows) {
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
      EXPECT_EQ(0, SendQuit(mode, withParameter));
    });
    daemon.ExpectSilentEnd();
    EXPECT_TRUE(WaitForNoPort(kSessionDaemonPortName, 0s));
  }
}

TEST(Daemon, ASecondCopyLeavesInSilence) {
  OpenDescriptorCheck noLeaks;
  ClearTestLog();
  Daemon first;
  ASSERT_TRUE(first.HasPort());
  // The quit event of the second with "-q" must not reach the first.
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"-q"}}) {
    Daemon second(words);
    second.ExpectSilentEnd();
  }
  RunOnThread([&] { EXPECT_EQ(errAEEventNotHandled, Ask(kSessionDaemonPortName, kPing).status); });
  EXPECT_TRUE(first.IsRunning());

  first.Kill();
  Daemon heir;  // of a daemon that was killed
  ASSERT_TRUE(heir.HasPort());
  RunOnThread([&] { EXPECT_EQ(0, SendQuit()); });
  heir.ExpectSilentEnd();
}

TEST(Daemon, QuitsAtOnceByTheQuitSwitchAlone) {
  const std::tuple<std::vector<std::string>, bool> rows[] = {
      {{"-q"}, true},
      {{"-q", "-lp", "x", "-q"}, true},
      {{"-sp", "-q"}, false},
      {{"-Q", "--q", "-qq", "q", ""}, false},
  };
  for (const auto& [words, quits] : rows) {
    SCOPED_TRACE(testing::PrintToString(words));
    OpenDescriptorCheck noLeaks;
    Daemon daemon(words);
    if (!quits) {
      EXPECT_TRUE(daemon.HasPort());
      RunOnThread([&] { EXPECT_EQ(0, SendQuit()); });
    }
    daemon.ExpectSilentEnd();
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
  daemon.ExpectSilentEnd();
  EXPECT_EQ(0, SMQuitDaemon());
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());
}

TEST(SessionMonitor, GetsNothingButTheQuitEvent) {
  RecordingPeer peer(kSessionDaemonPortName);
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

// Launch preferences that leave no way to find the daemon.
TEST_ROLE(LostChecker) {
  const std::string folder = std::string(getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences";
  std::filesystem::create_directories(folder);
  const std::string file = folder + "/com.veltrane.common.1.1.plist";
  std::ofstream(file) << "<plist version=\"1.0\"><dict><key>sessionMonitor</key><dict>"
                         "<key>findByPortName</key><false/></dict></dict></plist>";
  chmod(file.c_str(), 0644);
  role.Tell(Found());
  std::filesystem::remove(file);
  return kRoleDone;
}

TEST(RunningCheck, AFailedLookUpIsReported) {
  TestProcess checker("LostChecker");
  EXPECT_EQ("-50 not elsewhere 1", checker.Hear(20s));
  EXPECT_EQ(kRoleDone, checker.Wait(20s));
}

// The last test, since this process becomes the daemon and counts as it from then on.
TEST(RunningCheck, TellsThisProcessFromOthers) {
  EXPECT_EQ("0 not elsewhere 1", Found());
  {
    Daemon daemon;
    ASSERT_TRUE(daemon.HasPort());
    EXPECT_EQ("0 elsewhere 2", Found());
    // A start that finds the port taken does not make this process the daemon.
    EXPECT_NE(0, installAEHandlers());
    EXPECT_EQ("0 elsewhere 2", Found());
    EXPECT_EQ(0, removeAEHandlers());
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
