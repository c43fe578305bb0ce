#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/integration/notice_support.h"
#include "tests/support/test_role.h"

// Notices that never reach a desktop, or not for long: the text is logged once, the response comes
// once, and NMInstall does not wait.

namespace {

constexpr char kBusVariable[] = "DBUS_SESSION_BUS_ADDRESS";

void ExpectLoggedOnce(TestNotice& notice, const std::string& text) {
  EXPECT_TRUE(notice.WaitForResponses(1));
  EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
  EXPECT_EQ(1, notice.Responses());
  EXPECT_EQ(1, LinesInLog(text)) << TestLogText();
  EXPECT_EQ(1, LinesInLog("")) << TestLogText();
}

TEST_F(NoticeTest, ANoticeWithoutADesktopIsLoggedOnce) {
  const NoHelpersLeft noLeaks;
  for (const char* address : {static_cast<const char*>(nullptr), "unix:path=/nowhere/bus"}) {
    const ScopedVariable bus(kBusVariable, address);
    ClearTestLog();
    TestNotice notice("text");
    EXPECT_EQ(noErr, notice.Install());
    if (address == nullptr) {
      EXPECT_EQ(1, notice.Responses());
      EXPECT_EQ(std::this_thread::get_id(), notice.LastThread());
    }
    ExpectLoggedOnce(notice, "text");
  }
}

TEST_F(NoticeTest, ANoticeThatNoServiceShowsIsLoggedOnce) {
  const NoHelpersLeft noLeaks;
  const std::tuple<const char*, bool, bool, bool, bool> rows[] = {
      {"nobody", false, false, false, false},
      {"refused", true, true, false, false},
      {"silent", true, false, true, false},
      {"stopped", true, false, false, true},
  };
  PrivateBus bus;
  for (const auto& [text, hasService, refuses, isSilent, isBusStopped] : rows) {
    SCOPED_TRACE(text);
    ClearTestLog();
    std::unique_ptr<NotificationService> service;
    if (hasService) {
      service = std::make_unique<NotificationService>(
          bus, NotificationService::Options{.refuses = refuses, .isSilent = isSilent});
    }
    if (isBusStopped) bus.Stop();
    TestNotice notice(text);
    EXPECT_EQ(noErr, notice.Install());
    // Installing has not waited for a service that never replies.
    const bool canBeAnswered = !isSilent && !isBusStopped;
    EXPECT_LE(notice.Responses(), canBeAnswered ? 1 : 0);
    ExpectLoggedOnce(notice, text);
    if (isBusStopped) bus.Resume();
  }
}

TEST_F(NoticeTest, ANoticeThatIsLostFromTheScreenIsLoggedOnce) {
  const NoHelpersLeft noLeaks;
  const std::tuple<const char*,
                   std::function<void(PrivateBus&, std::unique_ptr<NotificationService>&)>>
      rows[] = {{"the service ends", [](PrivateBus&, auto& service) { service.reset(); }},
                {"the helper is killed",
                 [](PrivateBus&, auto&) {
                   for (const pid_t helper : NoticeHelpers()) kill(helper, SIGKILL);
                 }},
                {"the bus ends", [](PrivateBus& bus, auto&) { bus.Kill(); }}};
  for (const auto& [text, fault] : rows) {
    SCOPED_TRACE(text);
    ClearTestLog();
    PrivateBus bus;
    auto service = std::make_unique<NotificationService>(bus);
    TestNotice notice(text);
    EXPECT_EQ(noErr, notice.Install());
    ASSERT_EQ(1u, service->Calls(1).size());
    // The helper's report that it is on screen may still be under way.
    fault(bus, service);
    ExpectLoggedOnce(notice, text);
  }
}

// Replaces this program by `path`, with the same arguments.
void BecomeCopy(const std::string& path) {
  std::ifstream file("/proc/self/cmdline");
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) words.push_back(word);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execv(path.c_str(), arguments.data());
}

// Installs a notice in a copy of this program. The helper is searched for next to that copy.
TEST_ROLE(InstallBesideHelper) {
  const std::string copy = role.Argument(1);
  if (std::filesystem::read_symlink("/proc/self/exe") != copy) BecomeCopy(copy);
  auto* notice = new TestNotice(role.Argument(0));  // never removed
  if (notice->Install() != noErr) return RoleFailed();
  role.Tell(notice->Responses() == 1 ? "at once" : "later");
  return notice->WaitForResponses(1, 30s) && notice->Responses() == 1 ? kRoleDone : RoleFailed();
}

// A copy of this program and the path of its notice helper, in folders of one installation.
struct TestInstallation {
  TestInstallation(const std::string& programFolder, const std::string& helperFolder)
      : program(folder.Program(programFolder + "/notice_faults_test", "/proc/self/exe")),
        helper(folder.Folder(helperFolder) + "/vlt-notify") {}

  const ScratchFolder folder;
  const std::string program;
  const std::string helper;
};

TEST_F(NoticeTest, ANoticeIsLoggedOnceIfTheHelperIsAnotherProgram) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"no program",
       "\x7F"
       "ELF garbage",
       true},
      {"ends", "#!/bin/sh\nexit 0\n", false},
      {"babbles", "#!/bin/sh\nprintf babble >&0\nexec /bin/cat\n", false},
      {"hangs", "#!/bin/sh\nexec /bin/sleep 300\n", false},
  };
  const PrivateBus bus;
  for (const auto& [text, helper, isAtOnce] : rows) {
    SCOPED_TRACE(text);
    ClearTestLog();
    const TestInstallation installation("here", "here");
    std::ofstream(installation.helper) << helper;
    chmod(installation.helper.c_str(), 0755);
    TestProcess role("InstallBesideHelper", {text, installation.program});
    const std::optional<std::string> answered = role.Hear(30s);
    if (isAtOnce) {
      EXPECT_EQ("at once", answered);
    }
    EXPECT_EQ(kRoleDone, role.Wait(40s));
    EXPECT_EQ(1, LinesInLog(text)) << TestLogText();
  }
}

TEST_F(NoticeTest, TheHelperIsFoundInTheProgramsInstallation) {
  const std::tuple<const char*, const char*> rows[] = {
      {"here", "here"},
      {"bin", "libexec/veltrane"},
      {"share/veltrane/Applications/Test.app/Contents/Linux", "libexec/veltrane"},
  };
  const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe");
  const PrivateBus bus;
  for (const auto& [programFolder, helperFolder] : rows) {
    SCOPED_TRACE(programFolder);
    const TestInstallation installation(programFolder, helperFolder);
    std::filesystem::copy_file(own.parent_path() / "../libexec/veltrane/vlt-notify",
                               installation.helper);
    NotificationService service(bus);
    TestProcess role("InstallBesideHelper", {"text", installation.program});
    const std::vector<NotificationCall> calls = service.Calls(1);
    ASSERT_EQ(1u, calls.size());
    const std::vector<pid_t> helpers = NoticeHelpers();
    ASSERT_EQ(1u, helpers.size());
    EXPECT_EQ(installation.helper,
              std::filesystem::read_symlink("/proc/" + std::to_string(helpers[0]) + "/exe"));
    service.Close(calls[0].id);
    EXPECT_EQ(kRoleDone, role.Wait(20s));
    EXPECT_TRUE(WaitUntil([] { return NoticeHelpers().empty(); }, 20s));
  }
}

}  // namespace
