#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "launch/launch.h"
#include "platform/host/applications/launch_lock.h"
#include "platform/host/applications/program_log.h"
#include "platform/host/base/clock.h"
#include "tests/integration/launch_support.h"
#include "tests/integration/process_use.h"
#include "tests/support/few_descriptors.h"
#include "tests/support/session_directory.h"
#include "tests/support/test_role.h"

// Programs that do not behave as a daemon should, and the traces that a start leaves.

namespace {

VLTLaunchSpec SpecOf(const std::string& path, const std::string& port) {
  VLTLaunchSpec spec = {};
  spec.launchIfNotFound = spec.findByPortName = true;
  spec.launchRetrySleepInterval = -1;  // no time
  spec.launchRetries = 2;
  spec.executablePath = path.c_str();
  spec.portName = port.c_str();
  return spec;
}

HostOpeningInfo Open(const std::string& path, OSStatus expected) {
  const FSRef ref = RefOf(path);
  HostOpeningInfo info;
  EXPECT_EQ(expected, HostOpenApplication(&ref, &info)) << path;
  return info;
}

std::string AddApp(LaunchedApplications& apps, const std::string& name, const std::string& plan) {
  return apps.AddBundle(name, {"com.test", "LFts", "APPL", "program", "1"}, plan);
}

class LaunchFaults : public testing::Test {
 protected:
  LaunchedApplications apps;
};
using LaunchPauses = LaunchFaults;

// Pages that this process has mapped.
size_t MappedPages() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages;
}

TEST_F(LaunchFaults, ATargetThatCannotBeOpenedIsReportedAtOnce) {
  const ScratchFolder& folder = apps.Folder();
  const auto bundle = [&](const char* name, const char* executable, const char* type = "APPL") {
    return MakeTestBundle(folder, name, {"com.test", "LFts", type, executable, "1"});
  };
  const auto with = [&](const char* name, const char* text, mode_t mode = 0755) {
    const std::string path = bundle(name, "program");
    chmod(folder.File(std::string(name) + "/Contents/Linux/program", text).c_str(), mode);
    return path;
  };
  chmod(folder.File("program", "#!/bin/true\n").c_str(), 0755);
  const struct {
    std::string path;
    OSStatus err;
  } rows[] = {
      {bundle("Missing.app", "program"), kLSNoExecutableErr},
      {with("NoExec.app", "#!/bin/true\n", 0644), kLSNoExecutableErr},
      {with("BadElf.app", "\177ELF and no more"), kLSNoExecutableErr},
      {with("Text.app", "exit 0\n"), kLSNoExecutableErr},  // not given to a shell
      {with("NoInterpreter.app", "#!/nothing/here\n"), kLSNoExecutableErr},
      {bundle("Escape.app", "../../../program"), kLSNoExecutableErr},
      {bundle("Finder.app", "program", "FNDR"), kLSNotAnApplicationErr},
      {folder.Folder("Folder"), kLSNotAnApplicationErr},
      {folder.Folder("Empty.app"), kLSNotAnApplicationErr},
      {folder.File("document", "text"), kLSNotAnApplicationErr},
      {apps.AddProgram("data/Trash/files/program", ""), kLSAppInTrashErr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    // The opener does not wait for it.
    EXPECT_TRUE(IsDoneWithin(2s, [&row] { EXPECT_EQ(0, Open(row.path, row.err).pid); }));
    EXPECT_EQ(procNotFound, VLTLaunch(SpecOf(row.path, "test.nobody")).findAndLaunch());
  }
  // A program that is open for writing.
  const std::string written = apps.AddProgram("written", "");
  const int writer = open(written.c_str(), O_WRONLY | O_CLOEXEC);
  Open(written, kLSNoExecutableErr);
  const size_t pages = MappedPages();
  for (int i = 0; i < 50; i++) EXPECT_EQ(0, Open(written, kLSNoExecutableErr).pid);
  EXPECT_LT(MappedPages(), pages + 50 * 16) << "the stacks of a start are not given back";
  close(writer);
  EXPECT_EQ(paramErr, LSOpenFSRef(nullptr, nullptr));
  FSRef gone = RefOf(folder.Path("document"));
  unlink(folder.Path("document").c_str());
  EXPECT_EQ(fnfErr, LSOpenFSRef(&gone, nullptr));
}

TEST(LaunchedPrograms, ThatMisbehaveHaveTheirOwnOutcomesAndAreNotStartedTwice) {
  const std::string port = UniquePortName();
  const std::string other = port + ".other";
  const struct {
    const char* name;
    std::string plan;
    HostOpening outcome;
    std::string seen;  // the port
    bool isFound;      // by a launcher
  } rows[] = {
      {"ends", "exit 1\n", HostOpening::kEnded, "", false},
      {"killed", "kill 11\n", HostOpening::kEnded, "", false},
      {"wrong-name", "claim " + other + "\nloop\n", HostOpening::kClaimed, other, false},
      {"dies", "claim " + port + "\nkill 9\n", HostOpening::kClaimed, port, false},
      {"silent", "WAIT", HostOpening::kSilent, "", false},
      {"background", "background\nclaim " + port + "\nloop\n", HostOpening::kClaimed, port, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    LaunchedApplications apps;
    const std::string plan = row.plan == "WAIT" ? apps.WaitStep("never") : row.plan;
    const std::string path =
        AddApp(apps, std::string(row.name) + ".app", apps.NoteStep("it") + plan);
    const HostOpeningInfo info = Open(path, 0);
    // The program that dies may do so before or after its port is seen.
    const bool dies = std::string(row.name) == "dies";
    if (!dies || info.outcome != HostOpening::kEnded) {
      EXPECT_EQ(row.outcome, info.outcome);
      EXPECT_EQ(row.seen, info.port);
    }
    EXPECT_EQ(1u, apps.Starts("it").size());
    const OSStatus err = VLTLaunch(SpecOf(path, port)).findAndLaunch();
    if (dies) continue;
    EXPECT_EQ(row.isFound ? 0 : procNotFound, err);
    // A program that still runs is not started again.
    if (row.outcome != HostOpening::kEnded) {
      EXPECT_EQ(HostOpening::kRunning, Open(path, 0).outcome);
      EXPECT_EQ(1u, apps.Starts("it").size());
    }
  }
}

std::string DumpedBy(LaunchedApplications& apps, const std::string& name) {
  const std::string path = apps.Folder().Path(name);
  EXPECT_TRUE(WaitUntil([&] { return access(path.c_str(), F_OK) == 0; }, 20s));
  return ReadFile(path);
}

std::atomic<int> sChildSignals{0};

TEST_F(LaunchFaults, TheProgramInheritsTheEnvironmentAndNothingElse) {
  const std::string port = UniquePortName();
  const std::string path = AddApp(
      apps, "Dump.app", "dump " + apps.Folder().Path("dump") + "\nclaim " + port + "\nloop\n");

  // All that a program could inherit: descriptors without close-on-exec, a locked file, blocked,
  // ignored and caught signals, children that run and that have ended.
  const std::string lockPath = apps.Folder().File("locked");
  const int locked = open(lockPath.c_str(), O_RDWR);
  ASSERT_EQ(0, flock(locked, LOCK_EX));
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  ScopedVariable variable("VLT_LAUNCH_TEST", "inherited");
  struct sigaction onChild = {}, oldChild = {}, ignore = {}, oldPipe = {}, oldLast = {};
  onChild.sa_handler = [](int) { sChildSignals++; };
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &onChild, &oldChild);
  sigaction(SIGPIPE, &ignore, &oldPipe);
  sigaction(SIGRTMAX, &ignore, &oldLast);
  sigset_t mask, oldMask, maskAfter;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGUSR1);
  sigaddset(&mask, SIGRTMAX - 1);
  sigprocmask(SIG_SETMASK, &mask, &oldMask);
  const pid_t child = fork();
  if (child == 0) {
    char byte;
    close(ends[1]);
    (void)!read(ends[0], &byte, 1);
    _exit(7);
  }
  sChildSignals = 0;

  EXPECT_EQ(HostOpening::kClaimed, Open(path, 0).outcome);

  EXPECT_EQ(0, sChildSignals.load());
  EXPECT_EQ(0, waitpid(-1, nullptr, WNOHANG | __WALL));  // this process has one child, which runs
  sigprocmask(SIG_SETMASK, nullptr, &maskAfter);
  for (const int number : {SIGTERM, SIGUSR1, SIGINT, SIGCHLD}) {
    EXPECT_EQ(sigismember(&mask, number), sigismember(&maskAfter, number));
  }
  sigprocmask(SIG_SETMASK, &oldMask, nullptr);
  close(ends[1]);
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(7, WEXITSTATUS(status));
  EXPECT_EQ(1, sChildSignals.load());
  sigaction(SIGCHLD, &oldChild, nullptr);
  sigaction(SIGPIPE, &oldPipe, nullptr);
  sigaction(SIGRTMAX, &oldLast, nullptr);
  close(ends[0]);
  close(locked);
  const int again = open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(0, flock(again, LOCK_EX | LOCK_NB)) << "the program holds this process's lock";
  close(again);

  const std::string dump = DumpedBy(apps, "dump");
  const std::string parent = "parent " + std::to_string(getpid()) + "\n";
  EXPECT_EQ(std::string::npos, dump.find(parent)) << dump;
  const std::string log = HostProgramLogPath(path + "/Contents/Linux/program");
  const std::string output = "descriptor 1 " + log, errors = "descriptor 2 " + log;
  for (const char* line :
       {"descriptor 0 /dev/null", output.c_str(), errors.c_str(), "SigPnd:\t0000000000000000",
        "SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000", "session own", "folder /",
        "variable inherited"}) {
    EXPECT_NE(std::string::npos, ("\n" + dump).find(std::string("\n") + line + "\n"))
        << line << " in\n"
        << dump;
  }
  size_t descriptors = 0;
  for (size_t at = 0; (at = dump.find("descriptor ", at)) != std::string::npos; at++) descriptors++;
  EXPECT_EQ(3u, descriptors) << dump;
  EXPECT_TRUE(QuitAndWait(port));
}

TEST_F(LaunchFaults, StandardDescriptorsMayBeClosed) {
  const std::string path = apps.AddProgram("dump", "dump " + apps.Folder().Path("closed") + "\n");
  const FSRef ref = RefOf(path);
  const pid_t child = fork();
  if (child == 0) {
    for (const int descriptor : {0, 1, 2}) close(descriptor);
    _exit(LSOpenFSRef(&ref, nullptr) == 0 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  const std::string dump = DumpedBy(apps, "closed");
  const std::string log = HostProgramLogPath("/dump");
  EXPECT_TRUE(dump.starts_with("descriptor 0 /dev/null\ndescriptor 1 " + log + "\ndescriptor 2 " +
                               log + "\nSig"))
      << dump;
}

// Opens a path and reports the status.
TEST_ROLE(Opener) {
  FSRef ref = RefOf(role.Argument(0));
  role.SignalReady();
  role.Tell(std::to_string(LSOpenFSRef(&ref, nullptr)));
  return kRoleDone;
}

// The traces that a start, or an opener in the middle of one, leaves for the next opener.
HostLaunchEntry EntryOf(pid_t pid) {
  HostLaunchEntry entry;
  ProcessSerialNumber psn = {};
  EXPECT_EQ(noErr, GetProcessForPID(pid, &psn));
  entry.pid = pid;
  entry.startTicks = psn.highLongOfPSN;
  return entry;
}

std::string ProgramIn(const std::string& bundle) { return bundle + "/Contents/Linux/program"; }

void Record(const std::string& bundle, const HostLaunchEntry& entry) {
  HostLaunchLock lock(ProgramIn(bundle));
  ASSERT_TRUE(lock.Try());
  lock.Write(entry);
}

// An opener that has recorded its own process as started and gets no further.
TEST_ROLE(StuckOpener) {
  HostLaunchLock lock(role.Argument(0));
  if (!lock.Try()) return RoleFailed();
  HostLaunchEntry entry = EntryOf(getpid());
  lock.Write(entry);
  role.SignalReady();
  if (role.Hear(120s) != "go on") return RoleFailed();
  entry.opened = HostNow();
  lock.Write(entry);
  return kRoleDone;
}

TEST_F(LaunchFaults, AStuckOpenerHoldsNobodyUpForLong) {
  const std::string path = AddApp(apps, "Slow.app", apps.NoteStep("slow") + "exit 0\n");
  ReadyProcess stuck("StuckOpener", {ProgramIn(path)});
  std::atomic<OSStatus> ofThread{1};
  std::thread second([&] {
    ofThread = Open(path, kLSLaunchInProgressErr).outcome == HostOpening::kUnderWay ? 0 : 2;
  });
  TestProcess third("Opener", {path});
  EXPECT_EQ(stuck.Pid(), Open(path, kLSLaunchInProgressErr).pid);
  second.join();
  EXPECT_EQ(0, ofThread);
  EXPECT_TRUE(third.WaitReady(20s));
  EXPECT_EQ(std::to_string(kLSLaunchInProgressErr), third.Hear(20s));
  EXPECT_EQ(0u, apps.Starts("slow").size());
  // When it ends, the next opener may start the program.
  stuck.KillAndWait(20s);
  Open(path, 0);
  EXPECT_EQ(1u, apps.Starts("slow").size());
}

// Returns whether the process sleeps with the lock file open.
bool WaitsForItsTurn(pid_t pid) {
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(entry.path(), error);
    if (target.find("/launch-") != std::string::npos) return ProcessStateOf(pid) == 'S';
  }
  return false;
}

TEST_F(LaunchFaults, AnOpenerThatWaitedForAnotherStartsNothing) {
  const std::string path = AddApp(apps, "Ends.app", apps.NoteStep("it") + "exit 0\n");
  ReadyProcess first("StuckOpener", {ProgramIn(path)});
  ReadyProcess second("Opener", {path});
  EXPECT_TRUE(WaitUntil([&] { return WaitsForItsTurn(second.Pid()); }, 20s));
  first.Tell("go on");  // it ends, and it is the process that it has recorded
  EXPECT_EQ(std::to_string(kLSLaunchInProgressErr), second.Hear(20s));
  EXPECT_EQ(kRoleDone, first.Wait(20s));
  EXPECT_EQ(0u, apps.Starts("it").size());
}

TEST(LaunchedPrograms, ARecordedProcessIsRecognisedByItsStartTimeToo) {
  for (const bool isReused : {false, true}) {
    SCOPED_TRACE(isReused);
    LaunchedApplications apps;
    const std::string path =
        AddApp(apps, "Reused.app", apps.NoteStep("it") + "claim " + UniquePortName() + "\nloop\n");
    HostLaunchEntry entry = EntryOf(getpid());
    if (isReused) entry.startTicks--;  // an earlier process with this pid
    Record(path, entry);
    const HostOpeningInfo info = Open(path, 0);
    EXPECT_EQ(isReused ? HostOpening::kClaimed : HostOpening::kRunning, info.outcome);
    EXPECT_EQ(isReused ? apps.Starts("it").at(0) : getpid(), info.pid);
    EXPECT_EQ(isReused ? 1u : 0u, apps.Starts("it").size());
  }
}

// An entry of an earlier start would make the next opener wait for an unrelated process.
TEST_F(LaunchFaults, AnEntryIsOfTheLastStartOfThisProgram) {
  const std::string path = AddApp(apps, "Broken.app", apps.NoteStep("it") + "exit 0\n");
  EXPECT_EQ(HostOpening::kEnded, Open(path, 0).outcome);
  EXPECT_EQ(apps.Starts("it").at(0), HostLaunchLock(ProgramIn(path)).Read().pid);
  {
    HostLaunchLock lock(ProgramIn(path));
    for (const auto& [descriptor, target] : OpenDescriptors()) {
      if (target.find("/launch-") == std::string::npos) continue;
      EXPECT_EQ(0, truncate(target.c_str(), static_cast<off_t>(ReadFile(target).size() - 2)));
    }
    EXPECT_EQ(0, lock.Read().pid);  // incomplete
  }
  EXPECT_EQ(HostOpening::kEnded, Open(path, 0).outcome);
  std::filesystem::remove(ProgramIn(path));
  std::ofstream(ProgramIn(path)) << "\177ELF and no more";
  chmod(ProgramIn(path).c_str(), 0755);
  Open(path, kLSNoExecutableErr);
  EXPECT_EQ(0, HostLaunchLock(ProgramIn(path)).Read().pid);
  EXPECT_EQ(0, HostLaunchLock(ProgramIn(path) + ".other").Read().pid);
}

// Opens a path like a tool that a person runs.
TEST_ROLE(PersonsOpener) {
  const FSRef ref = RefOf(role.Argument(0));
  HostOpenDespitePauses();
  role.Tell(std::to_string(LSOpenFSRef(&ref, nullptr)));
  return kRoleDone;
}

// The program ends before it claims a port, or after.
TEST(LaunchedPrograms, ThatEndEarlyFiveTimesInARowAreNotStartedAgainAtOnce) {
  for (const bool claims : {false, true}) {
    SCOPED_TRACE(claims);
    ClearTestLog();
    LaunchedApplications apps;
    const std::string port = UniquePortName();
    const std::string path =
        AddApp(apps, "Ends.app",
               apps.NoteStep("it") + (claims ? "claim " + port + "\nexit 0\n" : "exit 1\n"));
    for (size_t i = 1; i <= 5; i++) {
      Open(path, 0);
      ASSERT_EQ(i, apps.Starts("it").size());
      EXPECT_TRUE(WaitForEnd(apps.Starts("it").back()));
      // The opener that saw the end has counted it.
      const int counted = HostLaunchLock(ProgramIn(path)).Read().earlyEnds;
      EXPECT_GE(counted, static_cast<int>(claims ? i - 1 : i));
    }
    for (int i = 0; i < 3; i++) Open(path, kLSServerCommunicationErr);
    EXPECT_EQ(procNotFound, VLTLaunch(SpecOf(path, port)).findAndLaunch());
    EXPECT_EQ(5u, apps.Starts("it").size());
    const std::string said =
        " has ended within 2 s of its start 5 times in a row; the next start is";
    const std::string log = TestLogText();
    EXPECT_NE(std::string::npos, log.find(ProgramIn(path) + said)) << log;
    EXPECT_EQ(log.find(said), log.rfind(said)) << log;
    TestProcess person("PersonsOpener", {path});
    EXPECT_EQ("0", person.Hear(20s));
    EXPECT_EQ(6u, apps.Starts("it").size());
  }
}

TEST_F(LaunchPauses, GrowToTenSecondsAndEndWhenTheProgramLives) {
  const std::string path = AddApp(apps, "Ends.app", apps.NoteStep("it") + "exit 0\n");
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  EXPECT_EQ(dead, waitpid(dead, nullptr, 0));
  const struct {
    const char* what;
    pid_t pid;
    int started;  // seconds ago
    int earlyEnds;
    int lastEnd;  // seconds ago; -1: not seen
    bool starts;
  } rows[] = {{"four", 0, 3, 4, 0, true},
              {"five, at once", 0, 3, 5, 0, false},
              {"five, later", 0, 3, 5, 1, true},
              {"six, at once", 0, 3, 6, 1, false},
              {"six, later", 0, 3, 6, 2, true},
              {"seven, at once", 0, 9, 7, 2, false},
              {"seven, later", 0, 9, 7, 4, true},
              {"eight, at once", 0, 9, 8, 6, false},
              {"eight, later", 0, 9, 8, 8, true},
              {"nine, at once", 0, 20, 9, 8, false},
              {"nine, later", 0, 20, 9, 10, true},
              {"many, at once", 0, 20, kHostMaxEarlyEnds, 8, false},
              {"many, later", 0, 20, kHostMaxEarlyEnds, 10, true},
              {"the fifth is seen now", dead, 0, 4, -1, false},
              {"the fifth lived longer", dead, 2, 4, -1, true},
              {"it was counted already", dead, 1, 4, 0, true},
              {"long ago", 0, 70, 1000, 61, true},
              {"seen lately", 0, 70, 9, 0, false},
              {"before the machine was restarted", 0, -1000, 9, -1000, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const int64_t now = HostNow();
    HostLaunchEntry entry;
    entry.pid = row.pid;
    entry.started = now - row.started * kHostSecond;
    entry.earlyEnds = row.earlyEnds;
    entry.lastEarlyEnd = row.lastEnd == -1 ? 0 : now - row.lastEnd * kHostSecond;
    Record(path, entry);
    Open(path, row.starts ? OSStatus{0} : OSStatus{kLSServerCommunicationErr});
    EXPECT_EQ(row.starts ? 1u : 0u, apps.Starts("it").size());
    if (row.what == std::string("long ago")) {
      EXPECT_LE(HostLaunchLock(ProgramIn(path)).Read().earlyEnds, 1);  // a new run has begun
    }
    apps.ForgetStarts("it");
  }
  HostLaunchEntry lives = EntryOf(getpid());
  lives.started = HostNow() - 3 * kHostSecond;
  lives.earlyEnds = 4;
  Record(path, lives);
  EXPECT_EQ(HostOpening::kRunning, Open(path, 0).outcome);
  EXPECT_EQ(0, HostLaunchLock(ProgramIn(path)).Read().earlyEnds);
}

// Opens with more and more file descriptors allowed, until it succeeds. Reports the statuses.
TEST_ROLE(ShortOfDescriptors) {
  const FSRef ref = RefOf(role.Argument(0));
  OSStatus err = 1;
  for (size_t left = 0; err != 0 && left < 60; left++) {
    const FewDescriptors few(left);
    err = LSOpenFSRef(&ref, nullptr);
    role.Tell(std::to_string(err));
    role.Hear(20s);  // until the test has counted the starts
  }
  return kRoleDone;
}

TEST_F(LaunchFaults, WithoutDescriptorsNothingIsStartedAndTheOpenerIsTold) {
  const std::string path =
      AddApp(apps, "Dear.app", apps.NoteStep("it") + "claim " + UniquePortName() + "\nloop\n");
  TestProcess opener("ShortOfDescriptors", {path});
  std::string err = "none";
  int failures = 0;
  while (err != "0") {
    err = opener.Hear(20s).value_or("0");
    if (err == "0") break;
    failures++;
    EXPECT_TRUE(err == std::to_string(kLSServerCommunicationErr) ||
                err == std::to_string(kLSUnknownErr) || err == std::to_string(tmfoErr))
        << err;
    EXPECT_EQ(0u, apps.Starts("it").size());
    opener.Tell("go on");
  }
  opener.Tell("go on");
  EXPECT_GE(failures, 3);
  EXPECT_EQ(kRoleDone, opener.Wait(20s));
  EXPECT_EQ(1u, apps.Starts("it").size());
}

TEST_F(LaunchFaults, AnOpenerThatIsKilledBlocksNobody) {
  const std::string path =
      AddApp(apps, "Killed.app", apps.NoteStep("slow") + apps.WaitStep("never"));
  TestProcess opener("Opener", {path});
  const auto hasEntry = [&] { return HostLaunchLock(ProgramIn(path)).Read().pid != 0; };
  ASSERT_TRUE(apps.WaitForStart("slow") && WaitUntil(hasEntry, 20s));
  opener.KillAndWait(20s);
  EXPECT_EQ(HostOpening::kRunning, Open(path, 0).outcome);  // what it started goes on
  kill(apps.Starts("slow")[0], SIGKILL);
  EXPECT_TRUE(WaitForEnd(apps.Starts("slow")[0]));
  Open(path, 0);
  EXPECT_EQ(2u, apps.Starts("slow").size());
}

std::atomic<int> sInterruptions{0};

// The opener waits for the end of the leaving process, although its thread gets signals.
TEST_F(LaunchFaults, AProcessThatIsLeavingIsReplacedAfterItsEnd) {
  struct sigaction onSignal = {}, before = {};
  onSignal.sa_handler = [](int) { sInterruptions++; };
  sigaction(SIGUSR2, &onSignal, &before);
  const std::string port = UniquePortName();
  const std::string path = AddApp(apps, "Leaving.app",
                                  apps.NoteStep("it") + "claim " + port + "\nloop\nlet-go\n" +
                                      apps.WaitStep("leave") + apps.NoteStep("it"));
  ASSERT_EQ(0, VLTLaunch(SpecOf(path, port)).findAndLaunch());
  EXPECT_TRUE(QuitAndWait(port));
  std::thread opener([&] { EXPECT_EQ(0, VLTLaunch(SpecOf(path, port)).findAndLaunch()); });
  bool isInterrupted = true;
  for (int i = 1; i <= 10 && isInterrupted; i++) {
    pthread_kill(opener.native_handle(), SIGUSR2);
    isInterrupted = WaitUntil([&] { return sInterruptions >= i; }, 5s);
  }
  EXPECT_TRUE(isInterrupted) << "the opener did not wait";
  EXPECT_TRUE(apps.LetGoOn("leave"));
  opener.join();
  const std::vector<pid_t> notes = apps.Starts("it");
  ASSERT_EQ(3u, notes.size());
  EXPECT_EQ(notes[0], notes[1]) << "a second copy was started before the first had ended";
  EXPECT_NE(notes[0], notes[2]);
  EXPECT_TRUE(QuitAndWait(port));
  sigaction(SIGUSR2, &before, nullptr);
}

// Finds or starts the daemon at each path from the test, and reports the status.
TEST_ROLE(Client) {
  role.SignalReady();
  while (const auto path = role.Hear(120s)) {
    VLTLaunchSpec spec = SpecOf(*path, role.Argument(0));
    spec.launchRetrySleepInterval = 1;
    role.Tell(std::to_string(VLTLaunch(spec).findAndLaunch()));
  }
  return kRoleDone;
}

TEST_F(LaunchFaults, ManyClientsStartOneDaemon) {
  const int scale = TestScale();
  const int clients = scale > 1 ? 200 : 50;
  const int rounds = scale > 1 ? 100 : 5;
  RaiseDescriptorLimit();
  const std::string port = UniquePortName();
  TestProcesses processes = StartProcesses(clients, "Client", "", {port});
  ExpectReady(processes);
  for (int round = 1; round <= rounds; round++) {
    // A new program each time, since one program would count as ending early.
    const std::string path = AddApp(apps, "Daemon" + std::to_string(round) + ".app",
                                    apps.NoteStep("daemon") + "claim " + port + "\nloop\n");
    for (auto& process : processes) process->Tell(path);
    for (auto& process : processes) EXPECT_EQ("0", process->Hear(60s));
    ASSERT_EQ(static_cast<size_t>(round), apps.Starts("daemon").size());
    ASSERT_TRUE(QuitAndWait(port));
  }
}

}  // namespace
