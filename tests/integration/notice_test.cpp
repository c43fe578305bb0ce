#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "tests/integration/notice_support.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/test_role.h"

// Notices that reach a desktop.

namespace {

using Words = std::vector<std::string>;

// A source, since a run loop without one ends at once.
class SomethingToWaitFor {
 public:
  explicit SomethingToWaitFor(CFStringRef mode) {
    CFRunLoopSourceContext nothing = {};
    source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &nothing);
    CFRunLoopAddSource(CFRunLoopGetCurrent(), source, mode);
  }
  ~SomethingToWaitFor() {
    CFRunLoopSourceInvalidate(source);
    CFRelease(source);
  }

 private:
  CFRunLoopSourceRef source;
};

TEST_F(NoticeTest, TheTextIsShownAsItIsAndAnsweredWhenDismissed) {
  const NoHelpersLeft noLeaks;
  const std::string program = program_invocation_short_name;
  const std::tuple<Words, std::string, std::string> rows[] = {
      {{"body", "actions", "body-markup"}, program, "caf\xC3\xA9 &lt;b&gt; &amp;\n2 "},
      {{"body"}, program, "caf\xC3\xA9 <b> &\n2 "},
      {{}, "caf\xC3\xA9 <b> &\n2 ", ""},
  };
  const PrivateBus bus;
  for (const auto& [capabilities, title, body] : rows) {
    SCOPED_TRACE(body);
    ClearTestLog();
    NotificationService service(bus, {.capabilities = capabilities});
    TestNotice notice("caf\x8E <b> &\r2\x07");
    EXPECT_EQ(noErr, notice.Install());
    const std::vector<NotificationCall> calls = service.Calls(1);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(program, calls[0].appName);
    EXPECT_EQ(title, calls[0].title);
    EXPECT_EQ(body, calls[0].body);
    EXPECT_EQ(0u, calls[0].replaced);
    EXPECT_EQ(0, calls[0].expireTimeout);
    EXPECT_EQ(0, notice.Responses());
    service.Close(calls[0].id);
    EXPECT_TRUE(notice.WaitForResponses(1));
    EXPECT_EQ("", TestLogText());
    EXPECT_EQ(noErr, notice.Remove());
    EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
    EXPECT_EQ(1, notice.Responses());
  }
}

TEST_F(NoticeTest, ARecordReplacesItsEarlierNotice) {
  const PrivateBus bus;
  for (const bool neverReplaces : {false, true}) {
    SCOPED_TRACE(neverReplaces);
    NotificationService service(bus, {.neverReplaces = neverReplaces});
    TestNotice other("other"), notice("text");
    EXPECT_EQ(noErr, other.Install());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(noErr, notice.Install());
    EXPECT_TRUE(notice.WaitForResponses(2));  // of those that were replaced
    const std::vector<NotificationCall> calls = service.Calls(neverReplaces ? 6 : 4);
    ASSERT_EQ(neverReplaces ? 6u : 4u, calls.size());
    EXPECT_EQ(0u, calls[1].replaced);
    EXPECT_EQ(calls[1].id, calls[2].replaced);
    if (neverReplaces) {
      EXPECT_EQ("CloseNotification", calls[3].method);
      EXPECT_EQ(calls[1].id, calls[3].id);
    }
    uint32_t last = 0;
    for (const NotificationCall& call : calls) {
      if (call.method == "Notify") last = call.id;
    }
    service.Close(last);
    EXPECT_TRUE(notice.WaitForResponses(3));
    EXPECT_EQ(0, other.Responses());
    EXPECT_EQ(noErr, other.Remove());
    // The next service must not get this one's calls.
    EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
  }
}

TEST_F(NoticeTest, RemovingANoticeWithdrawsItFromTheScreen) {
  const PrivateBus bus;
  NotificationService service(bus);
  TestNotice notice("text"), stays("stays");
  EXPECT_EQ(noErr, notice.Install());
  EXPECT_EQ(noErr, stays.Install());
  const uint32_t id = service.Calls(2).at(0).id;
  EXPECT_EQ(noErr, notice.Remove());
  EXPECT_EQ(qErr, notice.Remove());
  const std::vector<NotificationCall> calls = service.Calls(3);
  ASSERT_EQ(3u, calls.size());
  EXPECT_EQ("CloseNotification", calls[2].method);
  EXPECT_EQ(id, calls[2].id);
  service.Close(calls[1].id);
  EXPECT_TRUE(stays.WaitForResponses(1));
  EXPECT_EQ(0, notice.Responses());
}

// A service may do either, although it should not.
TEST_F(NoticeTest, ANoticeWhoseDismissalCannotBeToldIsAnsweredOnce) {
  const NoHelpersLeft noLeaks;
  const std::tuple<const char*, bool, bool, int> rows[] = {
      {"closed before the answer", true, false, 0}, {"shown without an id", false, true, 1}};
  const PrivateBus bus;
  for (const auto& [text, closesFirst, givesNoID, logged] : rows) {
    SCOPED_TRACE(text);
    ClearTestLog();
    NotificationService service(bus, {.closesFirst = closesFirst, .givesNoID = givesNoID});
    TestNotice notice(text);
    for (int count = 1; count <= 2; count++) {
      EXPECT_EQ(noErr, notice.Install());
      EXPECT_TRUE(notice.WaitForResponses(count));
    }
    EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
    EXPECT_EQ(2, notice.Responses());
    EXPECT_EQ(2 * logged, LinesInLog(text)) << TestLogText();
  }
}

// The time limit applies until the notice is on screen. Then it stays until it is dismissed.
TEST_F(NoticeTest, ANoticeStaysOnScreenForAnyTime) {
  const NoHelpersLeft noLeaks;
  const PrivateBus bus;
  NotificationService service(bus);
  TestNotice stays("stays"), passes("passes");
  EXPECT_EQ(noErr, stays.Install());
  for (int count = 1; count <= 2; count++) {
    EXPECT_EQ(noErr, passes.Install());
    const std::vector<NotificationCall> calls = service.Calls(count + 1);
    ASSERT_EQ(size_t(count) + 1, calls.size());
    service.Close(calls.back().id);
    // Messages keep their order: that the first one is on screen is known after this.
    EXPECT_TRUE(passes.WaitForResponses(count));
    LeapClock(60);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    LeapClock(0);
  }
  EXPECT_EQ(0, stays.Responses());
  EXPECT_EQ("", TestLogText());
  service.Close(service.Calls(1).at(0).id);
  EXPECT_TRUE(stays.WaitForResponses(1));
}

// The thread that listens to the helper leaves the program's signals to the program's threads.
TEST_F(NoticeTest, NoSignalIsHandledOnTheListeningThread) {
  static std::atomic<int> sHandled{0};
  struct sigaction count = {}, before = {};
  count.sa_handler = [](int) { sHandled++; };
  sigaction(SIGUSR2, &count, &before);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  {
    const PrivateBus bus;
    NotificationService service(bus);
    TestNotice notice("text");
    RunOnThread([&] {
      pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
      EXPECT_EQ(noErr, notice.Install());
    });
    const uint32_t id = service.Calls(1).at(0).id;
    kill(getpid(), SIGUSR2);
    service.Close(id);
    EXPECT_TRUE(notice.WaitForResponses(1));
    EXPECT_EQ(0, sHandled);
  }
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  EXPECT_EQ(1, sHandled);
  sigaction(SIGUSR2, &before, nullptr);
}

TEST_F(NoticeTest, ABusInTheRuntimeFolderNeedsNoVariable) {
  const PrivateBus bus;
  const std::string path = std::string(getenv("XDG_RUNTIME_DIR")) + "/bus";
  std::filesystem::create_symlink(bus.Address().substr(std::strlen("unix:path=")), path);
  {
    const ScopedVariable noAddress("DBUS_SESSION_BUS_ADDRESS", nullptr);
    NotificationService service(bus);
    TestNotice notice("text");
    EXPECT_EQ(noErr, notice.Install());
    const std::vector<NotificationCall> calls = service.Calls(1);
    ASSERT_EQ(1u, calls.size());
    service.Close(calls[0].id);
    EXPECT_TRUE(notice.WaitForResponses(1));
    EXPECT_EQ("", TestLogText());
  }
  std::filesystem::remove(path);
}

TEST_F(NoticeTest, NoMoreNoticesThanALimitAreOnScreen) {
  constexpr int kLimit = 64;
  const PrivateBus bus;
  NotificationService service(bus);
  std::vector<std::unique_ptr<TestNotice>> notices;
  for (int i = 0; i < kLimit + 3; ++i) {
    notices.push_back(std::make_unique<TestNotice>("number " + std::to_string(i)));
    EXPECT_EQ(noErr, notices.back()->Install());
    EXPECT_EQ(i < kLimit ? 0 : 1, notices.back()->Responses());
  }
  EXPECT_EQ(3, LinesInLog("number"));
  const std::vector<NotificationCall> calls = service.Calls(kLimit);
  EXPECT_EQ(size_t{kLimit}, calls.size());
  service.Close(calls[0].id);
  EXPECT_TRUE(notices[0]->WaitForResponses(1));
  EXPECT_EQ(noErr, notices[kLimit]->Install());  // there is room again
  EXPECT_EQ(size_t{kLimit} + 1, service.Calls(kLimit + 1).size());
}

TEST_F(NoticeTest, ResponsesRunOnTheMainRunLoopWhileItRuns) {
  const PrivateBus bus;
  NotificationService service(bus);
  TestNotice notice("text");
  const CFStringRef privateMode = CFSTR("NoticeTest");
  const SomethingToWaitFor inDefault(kCFRunLoopDefaultMode), inPrivate(privateMode);

  EXPECT_EQ(noErr, notice.Install());
  service.Close(service.Calls(1).at(0).id);
  EXPECT_TRUE(notice.WaitForResponses(1));  // the loop does not run
  EXPECT_NE(std::this_thread::get_id(), notice.LastThread());

  // While the loop runs without end, all of them are the main thread's.
  for (int count = 2; count < 5; ++count) {
    EXPECT_EQ(noErr, notice.Install());
    const std::vector<NotificationCall> calls = service.Calls(count);
    std::thread user([&] { service.Close(calls.back().id); });
    EXPECT_TRUE(RunLoopUntil([&] { return notice.Responses() == count; }, 1s) ||
                RunLoopUntil([&] { return notice.Responses() == count; }, 20s));
    user.join();
    EXPECT_EQ(std::this_thread::get_id(), notice.LastThread());
  }

  // A loop that ends before it gets to the response leaves it to the other thread.
  EXPECT_EQ(noErr, notice.Install());
  service.Close(service.Calls(5).back().id);
  CFRunLoopRunInMode(privateMode, 0.2, false);
  EXPECT_TRUE(notice.WaitForResponses(5));
}

TEST_F(NoticeTest, AForkedChildHasAHelperOfItsOwn) {
  const PrivateBus bus;
  NotificationService service(bus);
  TestNotice notice("parent");
  EXPECT_EQ(noErr, notice.Install());
  ASSERT_EQ(1u, service.Calls(1).size());
  const pid_t child = fork();
  if (child == 0) {
    TestNotice own("child");
    _exit(own.Install() == noErr && notice.Remove() == qErr ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  const std::vector<NotificationCall> calls = service.Calls(2);
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ("child", calls[1].body);
  EXPECT_EQ(0u, calls[1].replaced);
  service.Close(calls[0].id);
  EXPECT_TRUE(notice.WaitForResponses(1));
  EXPECT_EQ(2u, service.Calls(2).size());  // nothing was withdrawn
}

// Installs a notice with the text of its argument and ends at once.
TEST_ROLE(InstallAndEnd) {
  TestNotice* notice = new TestNotice(role.Argument(0));  // never removed
  return notice->Install() == noErr ? kRoleDone : RoleFailed();
}

TEST_F(NoticeTest, ANoticeOutlivesItsProcess) {
  const PrivateBus bus;
  {
    NotificationService service(bus);
    TestProcess process("InstallAndEnd", {"last words"});
    EXPECT_EQ(kRoleDone, process.Wait(20s));
    const std::vector<NotificationCall> calls = service.Calls(1);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("last words", calls[0].body);
    EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
    EXPECT_EQ(1u, service.Calls(1).size());
    EXPECT_EQ("", TestLogText());
  }
  TestProcess process("InstallAndEnd", {"nobody listens"});
  EXPECT_EQ(kRoleDone, process.Wait(20s));
  EXPECT_TRUE(WaitUntil([] { return LinesInLog("nobody listens") == 1; }, 20s));
  EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
  EXPECT_EQ(1, LinesInLog("nobody listens"));
}

}  // namespace
