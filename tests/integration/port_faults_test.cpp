#include <Carbon/Carbon.h>
#include <servers/bootstrap.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "platform/host/base/clock.h"
#include "platform/host/base/file_lock.h"
#include "platform/host/ports/services.h"
#include "platform/host/processes/serial_number.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"
#include "tests/integration/fault_server.h"
#include "tests/support/permissions.h"
#include "tests/support/session_directory.h"
#include "util/app_exception.h"

namespace {

OSStatus Ask(const char* name) { return AskServer(name).status; }

// A line from the test is "free", "end", or the instant at which all racers claim the name.
TEST_ROLE(Racer) {
  VLTPortAEMachPortListener listener;
  role.SignalReady();
  while (const auto line = role.Hear(60s)) {
    if (*line == "end") return kRoleDone;
    if (*line == "free") {
      listener.Deallocate(0);
      role.Tell("freed");
      continue;
    }
    SleepUntil(std::stoll(*line));
    const OSStatus err = ListenUnder(listener, role.PortName());
    if (err != 0) listener.Deallocate(err);
    role.Tell(std::to_string(err));
  }
  return RoleFailed();
}

TEST(PortRace, OneOfFiftyWinsEachOfAHundredRounds) {
  OpenDescriptorCheck noLeaks;
  constexpr int kRacers = 50, kRounds = 100;
  const std::string name = UniquePortName();
  TestProcesses racers = StartProcesses(kRacers, "Racer", name.c_str());
  ExpectReady(racers);
  for (int round = 0; round < kRounds; round++) {
    const std::string instant = std::to_string(HostNow() + 4 * kHostMillisecond);
    for (auto& racer : racers) ASSERT_TRUE(racer->Tell(instant));
    int winner = -1, winners = 0;
    for (int i = 0; i < kRacers; i++) {
      const std::string result = racers[static_cast<size_t>(i)]->Hear(20s).value_or("nothing");
      if (result == "0") {
        winner = i;
        winners++;
      } else if (result != std::to_string(portInUse)) {
        ASSERT_EQ(std::to_string(BOOTSTRAP_NAME_IN_USE), result);
      }
    }
    ASSERT_EQ(1, winners) << "round " << round;
    ASSERT_EQ(0, LookUpPort(name.c_str()));
    ASSERT_TRUE(racers[static_cast<size_t>(winner)]->Tell("free"));
    ASSERT_EQ("freed", racers[static_cast<size_t>(winner)]->Hear(20s));
    ASSERT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, LookUpPort(name.c_str()));
  }
  for (auto& racer : racers) racer->Tell("end");
  ExpectDone(racers);
}

// The file of a name that is looked up repeatedly stays open, but leads to the present owner.
TEST(PortOwner, LookUpsFollowTheName) {
  OpenDescriptorCheck noLeaks;
  const std::string name = UniquePortName();
  uint64_t port = 0, before = 0;
  for (unsigned round = 0; round < 8; round++) {
    SCOPED_TRACE(round);
    const bool letsGo = (round & 1) != 0;  // removes the name's file; one that is killed leaves it
    const bool isLookedUpBetween = (round & 2) != 0;
    ReadyProcess owner("Racer", name.c_str(), {});
    ASSERT_TRUE(owner.Tell("0"));
    ASSERT_EQ("0", owner.Hear(20s));
    for (int i = 0; i < 3; i++) {
      ASSERT_EQ(BOOTSTRAP_SUCCESS, HostFindName(name.c_str(), &port));
      EXPECT_NE(before, port);
    }
    before = port;
    if (letsGo) {
      ASSERT_TRUE(owner.Tell("free"));
      ASSERT_EQ("freed", owner.Hear(20s));
    } else {
      ASSERT_TRUE(owner.KillAndWait(20s));
    }
    if (isLookedUpBetween) {
      EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, HostFindName(name.c_str(), &port));
    }
  }
}

TEST(PortOwner, ARemovedNameFileLeadsNowhere) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess first("FaultServer");
  uint64_t port = 0, successor = 0;
  for (int i = 0; i < 3; i++) ASSERT_EQ(0, HostFindName(first.PortName(), &port));
  for (const auto& file :
       std::filesystem::directory_iterator(HostGetSessionDirectory()->path + "/names")) {
    std::filesystem::remove(file.path());
  }
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, HostFindName(first.PortName(), &successor));
  ReadyProcess second("FaultServer", first.PortName(), {});
  EXPECT_EQ(0, HostFindName(first.PortName(), &successor));
  EXPECT_NE(port, successor);
}

size_t EntriesIn(const char* folder) {
  return EntriesOf(HostGetSessionDirectory()->path + "/" + folder);
}

// A forked child that outlives the owner must keep neither its name nor its port.
TEST_ROLE(ForkingServer) {
  VLTPortAEMachPortListener listener;
  if (ListenUnder(listener, role.PortName()) != 0) return RoleFailed();
  const pid_t child = fork();
  if (child == 0) {
    const bool ends = role.Argument(0) == "ends";
    if (!ends) {
      role.SignalReady();  // in the child, which has closed its copies by now
      role.Hear(60s);      // until the test ends
    }
    exit(0);  // runs the exit handlers
  }
  if (role.Argument(0) == "ends") {
    waitpid(child, nullptr, 0);
    role.SignalReady();
  }
  CFRunLoopRun();
  return RoleFailed();
}

TEST(PortOwner, AForkedChildKeepsNothingAliveAndItsEndLeavesThePortAlone) {
  for (const char* child : {"sleeps", "ends"}) {
    SCOPED_TRACE(child);
    OpenDescriptorCheck noLeaks;
    ReadyProcess server("ForkingServer", {child});
    RunOnThread([&server] { EXPECT_EQ(0, Ask(server.PortName())); });
    ASSERT_TRUE(server.KillAndWait(20s));
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, LookUpPort(server.PortName()));
    VLTPortAEMachPortListener successor;
    EXPECT_EQ(0, ListenUnder(successor, server.PortName()));
  }
}

// Forks while another thread looks up a right or a name. Neither allocates, which is not safe in
// such a child with every heap.
TEST_ROLE(ForksAmongThreads) {
  const auto find = [] {
    return mach_port_deallocate(mach_task_self(), 0x70003) == KERN_INVALID_NAME &&
           HostFindOwnService("nobody") == MACH_PORT_NULL;
  };
  VLTPortAEMachPortListener listener;
  if (ListenUnder(listener, role.PortName()) != 0) return RoleFailed();
  std::atomic<bool> isOver = false;
  std::thread other([&] {
    while (!isOver) find();
  });
  int failures = 0;
  for (int i = 0; i < 200 && failures == 0; i++) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(find() ? 0 : 1);
    }
    int status = -1;
    failures += waitpid(child, &status, 0) != child || status != 0;
  }
  isOver = true;
  other.join();
  return failures == 0 ? kRoleDone : RoleFailed();
}

TEST(PortOwner, AChildForkedAmongThreadsCanUseItsRights) {
  TestProcess role("ForksAmongThreads");
  EXPECT_EQ(kRoleDone, role.Wait(60s));
}

TEST_ROLE(ChildOfAClient) {
  // The child uses neither the parent's connection nor the file that the parent keeps open for a
  // name that it looked up twice.
  if (Ask(role.PortName()) != 0 || Ask(role.PortName()) != 0) return RoleFailed();
  const pid_t child = fork();
  if (child == 0) {
    // Take the descriptor numbers of the parent's connections.
    int taken[8];
    for (int& each : taken) each = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 20; i++) {
      if (Ask(role.PortName()) != 0) _exit(1);
    }
    for (const int each : taken) {
      if (close(each) != 0) _exit(3);
    }
    VLTPortAEMachPortListener listener;
    const std::string own = std::string(role.PortName()) + ".child";
    _exit(ListenUnder(listener, own.c_str()) == 0 && Ask(role.PortName()) == 0 ? 0 : 2);
  }
  for (int i = 0; i < 20; i++) {
    if (Ask(role.PortName()) != 0) return RoleFailed();
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0 ? kRoleDone : RoleFailed();
}

TEST(PortClient, ParentAndForkedChildSpeakForThemselves) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("FaultServer");
  TestProcess client("ChildOfAClient", server.PortName(), {});
  EXPECT_EQ(kRoleDone, client.Wait(20s));
}

// More ports than a thread keeps connections: the first connection is closed and made again before
// its server has read anything.

constexpr int kManyPorts = 10;

std::string NumberedName(const std::string& name, int number) {
  return name + "." + std::to_string(number);
}

OSStatus AppendNumber(UInt32, UInt32, const AEDesc* event, AEDesc*, void* refcon) {
  *static_cast<std::string*>(refcon) += std::to_string(NumberOf(*event)) + " ";
  return 0;
}

TEST_ROLE(ManyPorts) {
  std::string logs[kManyPorts];
  VLTPortAEMachPortListener listeners[kManyPorts];
  for (int i = 0; i < kManyPorts; i++) {
    const std::string name = NumberedName(role.PortName(), i);
    const OSStatus err =
        listeners[i].ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), AppendNumber, &logs[i]);
    if (err != 0) return RoleFailed();
  }
  role.SignalReady();
  const int expected = std::stoi(role.Hear(20s).value_or("0"));
  const auto count = [&logs] { return std::count(logs[0].begin(), logs[0].end(), ' '); };
  const int64_t end = HostNow() + 20 * kHostSecond;
  while (count() < expected && HostNow() < end) {
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.1, true);
  }
  role.Tell(logs[0]);
  return kRoleDone;
}

OSStatus SendNumber(const std::string& name, SInt32 number) {
  mach_port_t port = MACH_PORT_NULL;
  const OSStatus err = LookUpPort(name.c_str(), &port);
  return err != 0 ? err : SendOneWay(port, kDropID, number);
}

TEST(PortClient, KeepsItsOrderThroughNewConnections) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("ManyPorts");
  std::string expected;
  RunOnThread([&] {
    // Three at a time: served in turn, the connections would mix them.
    for (int number = 0; number < 60; number++) {
      EXPECT_EQ(0, SendNumber(NumberedName(server.PortName(), 0), number));
      expected += std::to_string(number) + " ";
      for (int i = 1; number % 3 == 2 && i < kManyPorts; i++) {
        EXPECT_EQ(0, SendNumber(NumberedName(server.PortName(), i), number));
      }
    }
  });
  server.Tell("60");
  EXPECT_EQ(expected, server.Hear(20s));
  EXPECT_EQ(kRoleDone, server.Wait(20s));
}

std::string NameFile(const std::string& name) {
  std::string path = HostGetSessionDirectory()->path + "/names/";
  for (const char byte : name)
    path += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  return path;
}

TEST(NameFiles, ReleasingANameWhoseFileIsGoneLeavesTheNextOwnerAlone) {
  OpenDescriptorCheck noLeaks;
  const std::string name = UniquePortName();
  int first = -1, second = -1;
  uint64_t port = 0;
  ASSERT_EQ(0, HostClaimName(name.c_str(), 4711, &first));
  ASSERT_TRUE(std::filesystem::remove(NameFile(name)));
  ASSERT_EQ(0, HostClaimName(name.c_str(), 4712, &second));
  HostReleaseName(name.c_str(), first);
  EXPECT_EQ(0, HostFindName(name.c_str(), &port));
  EXPECT_EQ(4712u, port);
  HostReleaseName(name.c_str(), second);
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, HostFindName(name.c_str(), &port));
}

// Claims a name and looks it up; reports both results. "full": as on a full disk. "mode 0": as a
// user who may not open that file.
TEST_ROLE(NameUser) {
  if (role.Argument(0) == "full") {
    const rlimit few = {8, 8};  // bytes of a file
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &few);
  }
  if (role.Argument(0) == "mode 0" && !ObeyFileModes()) return RoleFailed();
  int claim = -1;
  uint64_t port = 0;
  role.Tell(std::to_string(HostClaimName(role.PortName(), 4711, &claim)));
  role.Tell(std::to_string(HostFindName(role.PortName(), &port)));
  if (claim >= 0) HostReleaseName(role.PortName(), claim);
  return kRoleDone;
}

TEST(NameFiles, WhatCannotBeUsedIsRefusedWithOneLogLine) {
  const std::tuple<const char*, std::function<int(const char*)>, kern_return_t, const char*>
      rows[] = {
          {"pipe", [](const char* path) { return mkfifo(path, 0600); }, KERN_FAILURE,
           "regular file"},
          {"folder", [](const char* path) { return mkdir(path, 0700); }, KERN_FAILURE,
           "regular file"},
          {"link", [](const char* path) { return symlink("/dev/null", path); }, KERN_FAILURE,
           "regular file"},
          {"socket", [](const char* path) { return mknod(path, S_IFSOCK | 0600, 0); }, KERN_FAILURE,
           "regular file"},
          {"locked by another where a port would be",
           [](const char* path) {
             const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
             return HostTryLockByte(fd, 5) ? 0 : -1;
           },
           KERN_FAILURE, "has locked"},
          {"full", nullptr, BOOTSTRAP_NO_MEMORY, nullptr},  // the log cannot grow either
          {"mode 0", [](const char* path) { return mknod(path, S_IFREG, 0); },
           BOOTSTRAP_NOT_PRIVILEGED, "Permission"},
      };
  ASSERT_NE(nullptr, HostGetSessionDirectory());
  for (const auto& [what, make, claimed, logged] : rows) {
    SCOPED_TRACE(what);
    const std::string name = UniquePortName(), file = NameFile(name);
    const auto before = OpenDescriptors();
    ASSERT_EQ(0, make == nullptr ? 0 : make(file.c_str()));
    ClearTestLog();
    TestProcess user("NameUser", name.c_str(), {what});
    EXPECT_EQ(std::to_string(claimed), user.Hear(20s));
    user.Hear(20s);
    EXPECT_EQ(kRoleDone, user.Wait(20s));
    if (logged != nullptr) {
      const std::string log = TestLogText();
      const size_t line = log.find(logged);
      EXPECT_NE(std::string::npos, line) << log;
      EXPECT_EQ(line, log.rfind(logged)) << log;
    }
    for (const auto& [number, target] : OpenDescriptors()) {
      if (!before.contains(number)) close(number);
    }
    std::filesystem::remove(file);
    TestProcess again("NameUser", name.c_str(), {""});
    EXPECT_EQ("0", again.Hear(20s));
    EXPECT_EQ("0", again.Hear(20s));
    EXPECT_EQ(kRoleDone, again.Wait(20s));
    EXPECT_FALSE(std::filesystem::exists(file));
  }
}

TEST_ROLE(Application) {
  VLTPortAEMachPortListener listener;
  if (ListenUnder(listener, role.PortName()) != 0) return RoleFailed();
  ProcessSerialNumber self = {0, kCurrentProcess};
  HostProcess process;
  if (!HostFindProcess(self, &process)) return RoleFailed();
  role.Tell(HostEventPortName(process.number).substr(1));
  RunApplicationEventLoop();
  return RoleFailed();
}

// The claims of others remove the files of killed processes: at once if nobody can claim the name
// again, else after a day.
TEST(NameFiles, LeftoversAreRemovedByTheClaimsOfOthers) {
  OpenDescriptorCheck noLeaks;
  const std::string name = UniquePortName();
  LookUpPort(name.c_str());
  const size_t before = EntriesIn("names"), ports = EntriesIn("ports");
  const auto claim = [&name] {
    VLTPortAEMachPortListener listener;
    return ListenUnder(listener, name.c_str());
  };
  for (int i = 0; i < 3; i++) {
    TestProcess application("Application", name.c_str(), {});
    ASSERT_TRUE(WaitForPort("\x01" + application.Hear(20s).value_or(""), 20s));
    ASSERT_TRUE(application.KillAndWait(20s));
  }
  ASSERT_EQ(0, claim());
  EXPECT_EQ(before, EntriesIn("names"));
  EXPECT_EQ(ports, EntriesIn("ports"));

  // Young files stay.
  constexpr int kYoung = 300, kOld = 500;
  const auto path = [](const std::string& text) {
    return HostGetSessionDirectory()->path + "/" + text;
  };
  const auto makeFile = [](const std::string& file, const std::string& text) {
    std::ofstream(file) << text;
  };
  std::set<std::string> staying;
  for (int i = 0; i < kYoung; i++) {
    staying.insert(NameFile("young." + std::to_string(i)));
    staying.insert(NameFile("\x01young." + std::to_string(i)));  // about to be claimed
  }
  for (const std::string& file : staying) makeFile(file, "");
  char record[160];
  for (int i = 0; i < kOld; i++) {
    snprintf(record, sizeof record, "pid %d uid 0 start 1 port %016x\n", getpid(), i + 1);
    const std::string number = std::to_string(i);
    makeFile(NameFile("\x01" + number), record);  // another process had this one's pid
    makeFile(path("ports/") + std::string(record).substr(std::string(record).size() - 17, 16), "");
    makeFile(NameFile("old." + number), "");
    const timespec longAgo[2] = {{1, 0}, {1, 0}};
    utimensat(AT_FDCWD, NameFile("old." + number).c_str(), longAgo, 0);
  }
  for (int i = 0; i < 60; i++) {
    ASSERT_EQ(0, claim());
    if (i % 10 == 9 && EntriesIn("names") == before + staying.size()) break;
  }
  EXPECT_EQ(before + staying.size(), EntriesIn("names"));
  EXPECT_EQ(ports, EntriesIn("ports"));
  for (const std::string& file : staying) EXPECT_TRUE(std::filesystem::remove(file));
}

// A program whose standard descriptors are closed does not print into files of the library.
TEST_ROLE(ClosedStandard) {
  for (const int fd : {0, 1, 2}) close(fd);
  VLTPortAEMachPortListener listener;
  const std::string own = std::string(role.PortName()) + ".own";
  if (ListenUnder(listener, own.c_str()) != 0) return RoleFailed();
  if (Ask(role.PortName()) != 0 || Ask(role.PortName()) != 0) return RoleFailed();
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true);
  const ScratchFolder folder;
  const std::string path = folder.Path("file");
  const CFURLRef url =
      CFURLCreateFromFileSystemRepresentation(nullptr, reinterpret_cast<const UInt8*>(path.data()),
                                              static_cast<CFIndex>(path.size()), false);
  const CFWriteStreamRef stream = CFWriteStreamCreateWithFile(nullptr, url);
  if (!CFWriteStreamOpen(stream)) return RoleFailed();
  std::string taken;
  for (const int fd : {0, 1, 2}) {
    if (fcntl(fd, F_GETFD) >= 0) taken += " " + std::to_string(fd);
  }
  role.Tell("taken:" + taken);
  CFRelease(stream);
  CFRelease(url);
  return kRoleDone;
}

TEST(Descriptors, StayAboveTheStandardOnes) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("FaultServer");
  TestProcess closed("ClosedStandard", server.PortName(), {});
  EXPECT_EQ("taken:", closed.Hear(20s));
  EXPECT_EQ(kRoleDone, closed.Wait(20s));
}

TEST_ROLE(Visitor) {
  setenv("XDG_RUNTIME_DIR", role.Argument(0).c_str(), 1);
  mach_port_t port = MACH_PORT_NULL;
  role.Tell(std::to_string(task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &port)));
  task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &port);  // not logged again
  role.Tell(HostDescribeSessionDirectory().problem);
  return kRoleDone;
}

void ExpectRefused(const char* part, const std::function<int(const char*)>& make) {
  SCOPED_TRACE(part);
  const ScratchFolder runtime;
  const std::string session = runtime.Path("veltrane");
  const std::string named = make != nullptr ? runtime.Path() : runtime.Path("absent");
  ASSERT_EQ(0, make != nullptr ? make(session.c_str()) : 0);
  ClearTestLog();
  TestProcess visitor("Visitor", {named});
  EXPECT_EQ(std::to_string(KERN_FAILURE), visitor.Hear(20s));
  const std::string problem = visitor.Hear(20s).value_or("");
  for (const std::string& text : {named + "/veltrane", std::string(part), std::string("chmod")}) {
    EXPECT_NE(std::string::npos, problem.find(text)) << problem;
  }
  EXPECT_EQ(kRoleDone, visitor.Wait(20s));
  const std::string log = TestLogText();
  EXPECT_NE(std::string::npos, log.find(problem)) << log;
  EXPECT_EQ(log.find(problem), log.rfind(problem)) << log;
}

TEST(SessionDirectory, AnUnusableOneIsRefusedWithTheReason) {
  ExpectRefused("mode 0755",
                [](const char* path) { return mkdir(path, 0700) || chmod(path, 0755); });
  ExpectRefused("symbolic link", [](const char* path) { return symlink("/tmp", path); });
  ExpectRefused("Not a directory", [](const char* path) { return mknod(path, S_IFREG | 0600, 0); });
  ExpectRefused("No such file", nullptr);
}

TEST(SessionDirectory, AnotherUsersIsRefusedWithTheReason) {
  SKIP_IF(NoOtherUsers());
  ExpectRefused("owner 12345",
                [](const char* path) { return mkdir(path, 0700) || chown(path, 12345, 12345); });
}
// Opens the session directory under a shortage or umask, then again; reports both problems.
TEST_ROLE(HinderedVisitor) {
  if (!ObeyFileModes()) return RoleFailed();
  const bool isShort = role.Argument(1) == "descriptors";
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {0, limit.rlim_max};
  if (isShort) setrlimit(RLIMIT_NOFILE, &few);
  if (role.Argument(1) == "umask") umask(0777);
  setenv("XDG_RUNTIME_DIR", role.Argument(0).c_str(), 1);
  const HostSessionDirectoryInfo first = HostDescribeSessionDirectory();
  setrlimit(RLIMIT_NOFILE, &limit);
  role.Tell(first.problem);
  role.Tell(HostDescribeSessionDirectory().problem);
  return kRoleDone;
}

TEST(SessionDirectory, ShortageAndUmaskDoNotSpoilIt) {
  for (const char* what : {"descriptors", "umask"}) {
    SCOPED_TRACE(what);
    const ScratchFolder runtime;
    TestProcess visitor("HinderedVisitor", {runtime.Path(), what});
    const std::string problem = visitor.Hear(20s).value_or("nothing");
    if (what == std::string("descriptors")) {
      EXPECT_NE(std::string::npos, problem.find("Too many open files")) << problem;
      EXPECT_EQ(std::string::npos, problem.find("remove")) << problem;
      EXPECT_EQ(std::string::npos, problem.find("chmod")) << problem;
    } else {
      EXPECT_EQ("", problem);
    }
    EXPECT_EQ("", visitor.Hear(20s));
    EXPECT_EQ(kRoleDone, visitor.Wait(20s));
  }
}

TEST(SessionDirectory, ALongPathWorks) {
  const ScratchFolder folder;
  std::string path = "d";
  for (int i = 0; i < 10; i++) path += "/" + std::string(60, 'd');
  const ScopedVariable runtime("XDG_RUNTIME_DIR", folder.Folder(path).c_str());
  ReadyProcess server("FaultServer");
  TestProcess client("ChildOfAClient", server.PortName(), {});
  EXPECT_EQ(kRoleDone, client.Wait(20s));
}

using Delivery = FaultTest;

std::vector<SInt32> MarksAt(const TestProcess& server) {
  return AskServer(server.PortName(), kTellID).Marks();
}

TEST_F(Delivery, OneWayEventsArriveInOrderAlsoOfAThreadThatHasEnded) {
  std::vector<SInt32> sent;
  RunOnThread([&] {
    mach_port_t port = MACH_PORT_NULL;
    ASSERT_EQ(0, LookUpPort(server.PortName(), &port));
    for (SInt32 i = 0; i < 250; ++i) {
      EXPECT_EQ(0, SendOneWay(port, kMarkID, i));
      sent.push_back(i);
      if (i == 199) {
        EXPECT_EQ(sent, MarksAt(server));  // requested and replied after them
      }
    }
  });
  RunOnThread([&] {
    EXPECT_TRUE(WaitUntil([&] { return MarksAt(server).size() >= sent.size(); }, 20s));
    EXPECT_EQ(sent, MarksAt(server));
  });
}

TEST_ROLE(Thrower) {
  const VLTAEDispatchCallback fail = [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) -> OSStatus {
    throw VLTAppException(-1);
  };
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), fail, nullptr) != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  try {
    RunApplicationEventLoop();
  } catch (const VLTAppException&) {
    return 7;
  }
  return kRoleDone;
}

TEST(Handlers, AnExceptionLeavesTheEventLoopAndTheClientGetsConnectionInvalid) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("Thrower");
  RunOnThread([&] { EXPECT_EQ(connectionInvalid, AskServer(server.PortName()).status); });
  EXPECT_EQ(7, server.Wait(20s));
}

}  // namespace
