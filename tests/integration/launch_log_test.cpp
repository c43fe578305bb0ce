#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/host/applications/introspect.h"
#include "platform/host/processes/start_program.h"
#include "tests/integration/launch_support.h"
#include "tests/support/session_directory.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// The output of started programs and the status with which they end.

namespace {

HostOpeningInfo Open(const std::string& path) {
  const FSRef ref = RefOf(path);
  HostOpeningInfo info;
  EXPECT_EQ(0, HostOpenApplication(&ref, &info)) << path;
  return info;
}

TEST(ProgramLog, HoldsWhatAProgramSaidAndHowItEndedWhileItsOpenerWaited) {
  LaunchedApplications apps;
  const struct {
    const char* identifier;
    std::string end;
    const char* text;
  } rows[] = {
      {"log.exits", "exit 3\n", "exit status 3"},
      {"log.succeeds", "exit 0\n", "exit status 0"},
      {"log.killed", "kill 9\n", "signal 9 (Killed)"},
      // The file is in the folder of logs, whatever the identifier is.
      {"../log/a%b", "exit 1\n", "exit status 1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.identifier);
    ClearTestLog();
    const std::string path = apps.AddBundle(std::string("It") + row.text[0] + row.end[5] + ".app",
                                            {row.identifier, "LogT", "APPL", "program", "1"},
                                            "say out\ncomplain err\n" + row.end);
    const HostOpeningInfo info = Open(path);
    EXPECT_EQ(HostOpening::kEnded, info.outcome);
    ASSERT_TRUE(info.waitStatus.has_value());
    EXPECT_EQ(row.text, HostEndText(*info.waitStatus));
    EXPECT_EQ(info.log, HostProgramLogPath(path + "/Contents/Linux/program"));
    EXPECT_EQ(std::string(getenv("XDG_STATE_HOME")) + "/veltrane/log",
              std::filesystem::path(info.log).parent_path());
    const std::string log = ReadFile(info.log);
    const std::string pid = std::to_string(info.pid);
    EXPECT_NE(std::string::npos, log.find("program\nout\nerr\n-- ")) << log;
    EXPECT_NE(std::string::npos, log.find(" starting " + path + "/Contents")) << log;
    EXPECT_NE(std::string::npos, log.find(" process " + pid + " ended: " + row.text + ", ")) << log;
    EXPECT_NE(std::string::npos, TestLogText().find(row.text)) << TestLogText();
    struct stat file;
    ASSERT_EQ(0, stat(info.log.c_str(), &file));
    EXPECT_EQ(0600u, file.st_mode & 07777);
  }
}

TEST(ProgramLog, IsCutToItsLastMebibyteAtTheNextStart) {
  LaunchedApplications apps;
  const std::string path = apps.AddBundle("Loud.app", {"log.loud", "LogT", "APPL", "program", "1"},
                                          "say first\nfill 1100\nsay last\nexit 0\n");
  const std::string log = Open(path).log;
  EXPECT_GT(std::filesystem::file_size(log), 1100u * 1024);
  EXPECT_FALSE(std::filesystem::exists(log + ".1"));
  std::ofstream(path + "/Contents/Linux/program.plan") << "say quiet\nexit 0\n";
  EXPECT_EQ(log, Open(path).log);
  EXPECT_EQ(1u << 20, std::filesystem::file_size(log + ".1"));
  EXPECT_LT(std::filesystem::file_size(log), 1024u);
  const std::string older = ReadFile(log + ".1");
  EXPECT_EQ(std::string::npos, older.find("first"));
  EXPECT_NE(std::string::npos, older.find("\nlast\n"));
  const std::vector<std::string> lines =
      HostLastLogLines(log, 4);  // the last of the older file, too
  ASSERT_EQ(4u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find(" ended: exit status 0"));
  EXPECT_EQ("quiet", lines[2]);
}

// A program that runs for long is not opened again, so others' openings and the tools cut its log.
TEST(ProgramLog, OfARunningProgramIsCutWhenAnyLogIsLookedAtAndTheProgramWritesOn) {
  LaunchedApplications apps;
  const std::string loud = apps.AddBundle("Loud.app", {"log.runs", "LogT", "APPL", "program", "1"},
                                          "fill 1100\nsay filled\n" + apps.NoteStep("filled") +
                                              apps.WaitStep("go") + "say on\nexit 0\n");
  const std::string quiet =
      apps.AddBundle("Quiet.app", {"log.quiet", "LogT", "APPL", "program", "1"}, "exit 0\n");
  const std::string log = HostProgramLogPath(loud + "/Contents/Linux/program");
  std::thread opener([&] { Open(loud); });
  ASSERT_TRUE(apps.WaitForStart("filled"));
  EXPECT_GT(std::filesystem::file_size(log), 1100u * 1024);
  // Somebody who is cutting the log is not disturbed.
  const int cutter = open(log.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(0, flock(cutter, LOCK_EX));
  HostCutProgramLogs();
  EXPECT_GT(std::filesystem::file_size(log), 1100u * 1024);
  close(cutter);
  Open(quiet);
  EXPECT_EQ(0u, std::filesystem::file_size(log));
  EXPECT_EQ(1u << 20, std::filesystem::file_size(log + ".1"));
  EXPECT_TRUE(ReadFile(log + ".1").ends_with("\nfilled\n"));
  HostCutProgramLogs();  // what was cut is not replaced by nothing
  EXPECT_EQ(1u << 20, std::filesystem::file_size(log + ".1"));
  EXPECT_TRUE(apps.LetGoOn("go"));
  opener.join();
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(log).find("on\n") != std::string::npos; }, 20s))
      << ReadFile(log);
}

// A log that cannot be used costs the output, not the start.
TEST(ProgramLog, ThatIsALinkOrNotAFileIsRefusedWithALogLine) {
  LaunchedApplications apps;
  const std::string path = apps.AddBundle("Mute.app", {"log.mute", "LogT", "APPL", "program", "1"},
                                          "say lost\nexit 0\n");
  const std::string log = HostProgramLogPath(path + "/Contents/Linux/program");
  const std::string target = apps.Folder().Path("target");
  std::filesystem::create_directories(std::filesystem::path(log).parent_path());
  std::ofstream(target) << "kept";
  ASSERT_EQ(0, symlink(target.c_str(), log.c_str()));
  for (int i = 0; i < 2; i++) {
    ClearTestLog();
    const HostOpeningInfo info = Open(path);
    EXPECT_EQ("", info.log);
    EXPECT_TRUE(info.waitStatus.has_value());
    EXPECT_EQ("kept", ReadFile(target));
    EXPECT_NE(std::string::npos, TestLogText().find("its log " + log + " cannot be opened"))
        << TestLogText();
    ASSERT_EQ(0, unlink(log.c_str()));
    ASSERT_EQ(0, i == 0 ? mkfifo(log.c_str(), 0600) : 0);
  }
}

// A process that starts a program and reports its pid.
TEST_ROLE(Watcher) {
  HostEndWatch watch;
  HostStartedProgram started;
  if (HostStartProgram(role.Argument(0).c_str(), &started, {.watch = &watch}) != 0) {
    return RoleFailed();
  }
  role.Tell(std::to_string(started.pid));
  role.Hear(20s);
  return kRoleDone;
}

// The children of this process.
std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream list(entry.path() / "children");
    for (pid_t child = 0; list >> child;) children.push_back(child);
  }
  return children;
}

TEST(EndWatch, HoldsNeitherTheProgramNorThisProcess) {
  LaunchedApplications apps;
  const std::string path = apps.AddProgram("lives", apps.NoteStep("it") + apps.WaitStep("end"));
  const size_t before = Children().size();
  pid_t pid = 0;
  {
    HostEndWatch watch;
    HostStartedProgram started;
    ASSERT_EQ(0, HostStartProgram(path.c_str(), &started, {.watch = &watch}));
    pid = started.pid;
    close(started.descriptor);
    const std::vector<pid_t> children = Children();
    ASSERT_EQ(before + 1, children.size());
    // The watching process would keep locks and sockets of this one alive.
    EXPECT_EQ(0u, EntriesOf("/proc/" + std::to_string(children.back()) + "/fd"));
  }
  // No child and no zombie is left, and the program goes on.
  EXPECT_EQ(before, Children().size());
  EXPECT_EQ(0, kill(pid, 0));
  EXPECT_TRUE(apps.LetGoOn("end"));
  EXPECT_TRUE(WaitForEnd(pid));
}

TEST(EndWatch, LearnsTheStatusAlsoIfThisProcessIgnoresItsChildren) {
  LaunchedApplications apps;
  const std::string path = apps.AddProgram("ends", "exit 7\n");
  struct sigaction before = {}, ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &before);
  HostEndWatch watch;
  HostStartedProgram started;
  ASSERT_EQ(0, HostStartProgram(path.c_str(), &started, {.watch = &watch}));
  EXPECT_TRUE(WaitForEnd(started.pid));
  EXPECT_EQ(std::optional<int>(W_EXITCODE(7, 0)), watch.Status());
  close(started.descriptor);
  sigaction(SIGCHLD, &before, nullptr);
}

TEST(EndWatch, EndsWithAnOpenerThatIsKilledSoThatItsPortsAreFreeAtOnce) {
  LaunchedApplications apps;
  const std::string path = apps.AddProgram("lives", apps.WaitStep("end"));
  TestProcess opener("Watcher", {path});
  const std::string pid = opener.Hear(20s).value_or("");
  ASSERT_NE("", pid);
  ASSERT_TRUE(opener.KillAndWait(20s));
  // Only init or a subreaper is the program's parent once the watching process has ended.
  EXPECT_TRUE(WaitUntil(
      [&] {
        std::ifstream status("/proc/" + pid + "/status");
        for (std::string line; std::getline(status, line);) {
          if (line.starts_with("PPid:")) {
            const pid_t parent = std::atoi(line.c_str() + 5);
            std::error_code error;
            return std::filesystem::read_symlink("/proc/" + std::to_string(parent) + "/exe",
                                                 error) !=
                   std::filesystem::read_symlink("/proc/self/exe");
          }
        }
        return false;
      },
      20s));
  EXPECT_TRUE(apps.LetGoOn("end"));
  EXPECT_TRUE(WaitForEnd(std::atoi(pid.c_str())));
}

}  // namespace
