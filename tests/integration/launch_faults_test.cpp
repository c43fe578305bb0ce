#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "launch/launch.h"
#include "tests/integration/launch_support.h"
#include "tests/integration/process_use.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_role.h"

// Programs that do not do what a daemon should, and what a start leaves behind.

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

TEST(LaunchFaults, WhatCannotBeOpenedIsSaidAtOnce) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const ScratchFolder& folder = apps.Folder();
  const auto bundle = [&](const char* name, const char* executable, const char* type = "APPL") {
    return MakeTestBundle(folder, name, {"com.test", "test", type, executable, "1"});
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
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, Open(row.path, row.err).pid);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);  // it was not waited for
    EXPECT_EQ(procNotFound, VLTLaunch(SpecOf(row.path, "test.nobody")).findAndLaunch());
  }
  EXPECT_EQ(paramErr, LSOpenFSRef(nullptr, nullptr));
  FSRef gone = RefOf(folder.Path("document"));
  unlink(folder.Path("document").c_str());
  EXPECT_EQ(fnfErr, LSOpenFSRef(&gone, nullptr));
}

TEST(LaunchFaults, ProgramsThatDoNotBehave) {
  OpenDescriptorCheck noLeaks;
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
        apps.AddBundle(std::string(row.name) + ".app", {"com.test", "test", "APPL", "program", "1"},
                       apps.NoteStep("it") + plan);
    const HostOpeningInfo info = Open(path, 0);
    // One that dies may do so before its port is seen, or after.
    const bool dies = std::string(row.name) == "dies";
    if (!dies || info.outcome != HostOpening::kEnded) {
      EXPECT_EQ(row.outcome, info.outcome);
      EXPECT_EQ(row.seen, info.port);
    }
    EXPECT_EQ(1u, apps.Starts("it").size());
    const OSStatus err = VLTLaunch(SpecOf(path, port)).findAndLaunch();
    if (dies) continue;
    EXPECT_EQ(row.isFound ? 0 : procNotFound, err);
    // One that still runs is not started again.
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

TEST(LaunchFaults, TheProgramInheritsTheEnvironmentAndNothingElse) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string port = UniquePortName();
  const std::string path =
      apps.AddBundle("Dump.app", {"com.test", "test", "APPL", "program", "1"},
                     "dump " + apps.Folder().Path("dump") + "\nclaim " + port + "\nloop\n");

  // Everything that could be handed down: descriptors without close-on-exec, a locked file,
  // blocked, ignored and caught signals, children that run and that have ended.
  const std::string lockPath = apps.Folder().File("locked");
  const int locked = open(lockPath.c_str(), O_RDWR);
  ASSERT_EQ(0, flock(locked, LOCK_EX));
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  ScopedVariable variable("VLT_LAUNCH_TEST", "inherited");
  struct sigaction onChild = {}, oldChild = {}, ignore = {}, oldPipe = {};
  onChild.sa_handler = [](int) { sChildSignals++; };
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &onChild, &oldChild);
  sigaction(SIGPIPE, &ignore, &oldPipe);
  sigset_t mask, oldMask, maskAfter;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGUSR1);
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
  EXPECT_EQ(0, waitpid(-1, nullptr, WNOHANG | __WALL));  // our child runs, and it is the only one
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
  close(ends[0]);
  close(locked);
  const int again = open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(0, flock(again, LOCK_EX | LOCK_NB)) << "the program holds our lock";
  close(again);

  const std::string dump = DumpedBy(apps, "dump");
  const std::string parent = "parent " + std::to_string(getpid()) + "\n";
  EXPECT_EQ(std::string::npos, dump.find(parent)) << dump;
  std::string expected;
  for (const char* line :
       {"descriptor 0 /dev/null", "descriptor 1 /dev/null", "descriptor 2 /dev/null",
        "SigPnd:\t0000000000000000", "SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000",
        "session own", "folder /", "variable inherited"}) {
    EXPECT_NE(std::string::npos, ("\n" + dump).find(std::string("\n") + line + "\n"))
        << line << " in\n"
        << dump;
  }
  size_t descriptors = 0;
  for (size_t at = 0; (at = dump.find("descriptor ", at)) != std::string::npos; at++) descriptors++;
  EXPECT_EQ(3u, descriptors) << dump;
  EXPECT_TRUE(QuitAndWait(port));
}

TEST(LaunchFaults, StandardDescriptorsMayBeClosed) {
  LaunchedApplications apps;
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
  EXPECT_TRUE(
      dump.starts_with("descriptor 0 /dev/null\ndescriptor 1 /dev/null\n"
                       "descriptor 2 /dev/null\nSig"))
      << dump;
}

// Opens a path and tells the status.
TEST_ROLE(Opener) {
  FSRef ref = RefOf(role.Argument(0));
  role.SignalReady();
  role.Tell(std::to_string(LSOpenFSRef(&ref, nullptr)));
  return kRoleDone;
}

TEST(LaunchFaults, OneOpensOthersWaitForIt) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string path = apps.AddBundle("Slow.app", {"com.test", "test", "APPL", "program", "1"},
                                          apps.NoteStep("slow") + apps.WaitStep("never"));
  TestProcess opener("Opener", {path});
  ASSERT_TRUE(apps.WaitForStart("slow"));
  std::atomic<OSStatus> ofThread{1};
  std::thread second([&] {
    ofThread = Open(path, kLSLaunchInProgressErr).outcome == HostOpening::kUnderWay ? 0 : 2;
  });
  EXPECT_EQ(apps.Starts("slow")[0], Open(path, kLSLaunchInProgressErr).pid);
  second.join();
  EXPECT_EQ(0, ofThread);
  EXPECT_EQ("ready", opener.Hear(20s));
  EXPECT_EQ("0", opener.Hear(20s));
  EXPECT_EQ(1u, apps.Starts("slow").size());
}

// Whether an opener has left word of what it started.
bool HasLeftWord() {
  const std::string session = std::string(getenv("XDG_RUNTIME_DIR")) + "/veltrane";
  for (const auto& entry : std::filesystem::directory_iterator(session)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with("launch-")) continue;
    std::string word;
    std::getline(std::ifstream(entry.path()), word);
    if (word.find("/Killed.app/") != std::string::npos && !word.starts_with("pid 0 ")) return true;
  }
  return false;
}

TEST(LaunchFaults, AnOpenerThatIsKilledBlocksNobody) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string path =
      apps.AddBundle("Killed.app", {"com.test", "test", "APPL", "program", "1"},
                     apps.NoteStep("slow") + apps.WaitStep("never"));
  TestProcess opener("Opener", {path});
  ASSERT_TRUE(apps.WaitForStart("slow") && WaitUntil(HasLeftWord, 20s));
  opener.KillAndWait(20s);
  EXPECT_EQ(HostOpening::kRunning, Open(path, 0).outcome);  // what it started goes on
  kill(apps.Starts("slow")[0], SIGKILL);
  EXPECT_TRUE(WaitForEnd(apps.Starts("slow")[0]));
  Open(path, 0);
  EXPECT_EQ(2u, apps.Starts("slow").size());
}

TEST(LaunchFaults, OneThatIsLeavingIsReplaced) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string port = UniquePortName();
  const std::string path = apps.AddBundle(
      "Leaving.app", {"com.test", "test", "APPL", "program", "1"},
      apps.NoteStep("it") + "claim " + port + "\nloop\nlet-go\n" + apps.WaitStep("leave"));
  ASSERT_EQ(0, VLTLaunch(SpecOf(path, port)).findAndLaunch());
  EXPECT_TRUE(QuitAndWait(port));
  std::thread letGo([&] { EXPECT_TRUE(apps.LetGoOn("leave")); });
  EXPECT_EQ(0, VLTLaunch(SpecOf(path, port)).findAndLaunch());
  letGo.join();
  EXPECT_EQ(2u, apps.Starts("it").size());
}

// Asks for the daemon once for each line that it hears, and tells what became of it.
TEST_ROLE(Client) {
  const VLTLaunchSpec spec = [&] {
    VLTLaunchSpec made = SpecOf(role.Argument(0), role.Argument(1));
    made.launchRetrySleepInterval = 1;
    return made;
  }();
  role.SignalReady();
  while (role.Hear(120s) == "go") {
    role.Tell(std::to_string(VLTLaunch(spec).findAndLaunch()));
  }
  return kRoleDone;
}

TEST(LaunchFaults, ManyClientsStartOneDaemon) {
  const int scale = TestScale();
  const int clients = scale > 1 ? 200 : 50;
  const int rounds = scale > 1 ? 100 : 5;
  RaiseDescriptorLimit();
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string port = UniquePortName();
  const std::string path =
      apps.AddBundle("Daemon.app", {"com.test", "test", "APPL", "program", "1"},
                     apps.NoteStep("daemon") + "claim " + port + "\nloop\n");
  TestProcesses processes = StartProcesses(clients, "Client", "", {path, port});
  ExpectReady(processes);
  for (int round = 1; round <= rounds; round++) {
    for (auto& process : processes) process->Tell("go");
    for (auto& process : processes) EXPECT_EQ("0", process->Hear(60s));
    ASSERT_EQ(static_cast<size_t>(round), apps.Starts("daemon").size());
    ASSERT_TRUE(QuitAndWait(port));
  }
}

}  // namespace
