#include <fcntl.h>
#include <gtest/gtest.h>
#include <servers/bootstrap.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "clients/session_monitor.h"
#include "daemon/event_service.h"
#include "daemon/session_monitor.h"
#include "plist/dictionary.h"
#include "tests/aeport/serving.h"
#include "tests/integration/process_use.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_role.h"
#include "tools/tool.h"
#include "tools/verbs/verb.h"

// Whole programs while an allocation fails: a server with a client of another process, the session
// daemon, and the tool.

namespace {

constexpr AllocationFailure kKinds[] = {AllocationFailure::kOne, AllocationFailure::kAllFromThere};

const char* NameOf(AllocationFailure kind) {
  return kind == AllocationFailure::kOne ? "one" : "all";
}

using Outcomes = std::map<int, int>;

void Print(const char* name, AllocationFailure kind, int allocations, const Outcomes& outcomes) {
  std::printf("%-28s %-4s %4d allocations:", name, NameOf(kind), allocations);
  for (const auto& [status, count] : outcomes) std::printf(" %d x %d", count, status);
  std::printf("\n");
}

// The server's side. Signals arm and disarm the layer, so that only the request is in between:
// SIGUSR1 makes an allocation fail, each time the next one in order; SIGUSR2 ends that and reports
// whether an allocation has failed; SIGHUP starts again with the other kind of failure.

int sPipe = -1;
int sNumber = 0;
AllocationFailure sKind = AllocationFailure::kOne;

void Report(const char* word) {
  [[maybe_unused]] const ssize_t ignored = write(sPipe, word, strlen(word));
}

void HandleSignal(int number) {
  if (number == SIGHUP) {
    sNumber = 0;
    sKind = AllocationFailure::kAllFromThere;
    Report("again\n");
  } else if (number == SIGUSR1) {
    ArmAllocationFailureOfProcess(++sNumber, sKind, -1);
    Report("armed\n");
  } else {
    DisarmAllocationFailure();
    Report(FailedAllocations() > 0 ? "some\n" : "none\n");
  }
}

TEST_ROLE(ServerWithoutMemory) {
  sPipe = role.Pipe();
  ArmAllocationFailureOfProcess(0, sKind, -1);
  DisarmAllocationFailure();
  for (const int number : {SIGUSR1, SIGUSR2, SIGHUP}) signal(number, HandleSignal);
  EventHandler handler = [](const ServedEvent& served) {
    return CopyParameters(served.event, served.reply);
  };
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  CFRunLoopRun();
  return kRoleDone;
}

// Sends an event with a list of texts and a long text, and compares what comes back.
OSStatus AskForEcho(const char* port, const std::string& text) {
  const auto length = static_cast<Size>(text.size());
  VLTPortDestinationAddress address(port);
  VLTPortAppleEvent event(FourCC('t', 'e', 's', 't'), kPing, kAEWaitReply, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  AEDesc list = {typeNull, nullptr};
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = AECreateList(nullptr, 0, false, &list);
  for (int i = 0; err == 0 && i < 6; i++) err = AEPutPtr(&list, 0, typeChar, text.data(), 100);
  if (err == 0) err = AEPutParamDesc(&event.event, FourCC('l', 'i', 's', 't'), &list);
  if (err == 0) err = AEPutParamPtr(&event.event, keyDirectObject, typeChar, text.data(), length);
  if (err == 0) err = event.sendEvent(0, 10 * 60, kAENormalPriority);
  Size size = 0;
  DescType type = typeNull;
  if (err == 0) err = AESizeOfParam(&event.reply, keyDirectObject, &type, &size);
  EXPECT_TRUE(err != 0 || size == length);
  event.finalizeEvent();
  AEDisposeDesc(&list);
  return err;
}

// A server that runs out of memory refuses the one request with -108 and serves the next.
void SweepServer(const char* name, bool onNewConnection) {
  ReadyProcess server("ServerWithoutMemory");
  size_t length = 0;
  const auto ask = [&] {
    OSStatus err = -1;
    length += 1000;  // so that no block the server has kept is large enough
    const auto body = [&] { err = AskForEcho(server.PortName(), std::string(length, 't')); };
    onNewConnection ? std::thread(body).join() : body();
    return err;
  };
  // With a connection that stays, it belongs to what the server holds afterwards.
  ASSERT_TRUE(onNewConnection || ask() == 0);
  const ProcessUse before = UseOf(server.Pid());
  for (const AllocationFailure kind : kKinds) {
    Outcomes outcomes;
    int number = 1;
    // A frame that needs more room waits until there is memory.
    length = kind == AllocationFailure::kOne ? 100000 : 3000;
    for (;; number++) {
      SCOPED_TRACE(std::string(name) + ", " + NameOf(kind) + " from " + std::to_string(number));
      server.Signal(SIGUSR1);
      ASSERT_EQ("armed", server.Hear(20s));
      const OSStatus err = ask();
      server.Signal(SIGUSR2);
      const auto hasFailed = server.Hear(20s);
      ASSERT_TRUE(hasFailed == "some" || hasFailed == "none");
      EXPECT_TRUE(err == 0 || (err == memFullErr && hasFailed == "some")) << err;
      EXPECT_EQ(0, ask());
      if (hasFailed == "none" || testing::Test::HasFailure()) break;
      outcomes[err]++;
    }
    Print(name, kind, number - 1, outcomes);
    server.Signal(SIGHUP);
    ASSERT_EQ("again", server.Hear(20s));
  }
  ExpectBackAt(before, server.Pid());
}

TEST(ServerWithoutMemory, AnswersTheRequestWithAMemoryErrorAndServesTheNext) {
  SweepServer("dispatch", false);
}

TEST(ClientWithoutMemory, GetsAReplyOrAMemoryError) {
  ReadyProcess server("ServerWithoutMemory");
  const std::string text(100, 't');
  Sweep("look up and ask", [&] { return AskForEcho(server.PortName(), text); },
        {memFullErr, BOOTSTRAP_NO_MEMORY, KERN_RESOURCE_SHORTAGE});
}

TEST(ServerWithoutMemory, AcceptsAConnectionLaterWithoutLosingIt) {
  SweepServer("accept and dispatch", true);
}

// Programs that end by themselves. Arguments: the number of the allocation, the kind of failure.

void ArmAsTold(TestRole& role) {
  const auto kind =
      role.Argument(1) == "one" ? AllocationFailure::kOne : AllocationFailure::kAllFromThere;
  ArmAllocationFailureOfProcess(role.NumberArgument(0), kind, role.Pipe());
}

TEST_ROLE(QuittingDaemon) {
  char name[] = "vltsessiond";
  char option[] = "-q";
  char* words[] = {name, option, nullptr};
  signal(SIGUSR2, [](int) { DisarmAllocationFailure(); });
  role.SignalReady();
  ArmAsTold(role);
  try {
    ParseSessionDaemonOptions(2, words);
    SetSessionDaemonLogfileName();
    return sessionMonitor();
  } catch (...) {
    return 1;
  }
}

// The arguments after those two are a command line of the tool.
TEST_ROLE(Tool) {
  std::vector<std::string> words;
  for (int i = 2; i < role.NumberOfArguments(); i++) words.push_back(role.Argument(i));
  ArmAsTold(role);
  try {
    return RunTool(words);
  } catch (const std::bad_alloc&) {
    return kExitGeneral;
  }
}

constexpr int kQuitAgain = 1000;  // among the outcomes

struct ProgramSweep {
  const char* name;
  const char* role;
  std::vector<std::string> words;
  std::set<int> refusals;                 // exit statuses beside 0
  std::function<void(int status)> check;  // after each run
  bool mayNeedQuit = false;               // else it ends by itself
};

// Waits for a program's end. A daemon that lost its own quit event for lack of memory goes on, like
// any server after an event without a reply: it gets the memory back and another quit event.
std::optional<int> WaitForEnd(const ProgramSweep& sweep, TestProcess& program, Outcomes& outcomes) {
  if (sweep.mayNeedQuit) {
    EXPECT_TRUE(program.WaitReady(20s));  // from here on it bears the signal
    if (const std::optional<int> status = program.Wait(500ms)) return status;
    outcomes[kQuitAgain]++;
    program.Signal(SIGUSR2);
    SMQuitDaemon();
  }
  return program.Wait(20s);
}

void SweepProgram(const ProgramSweep& sweep) {
  for (const AllocationFailure kind : kKinds) {
    Outcomes outcomes;
    int number = 1;
    for (;; number++) {
      SCOPED_TRACE(std::string(sweep.name) + ", " + NameOf(kind) + " from " +
                   std::to_string(number));
      std::vector<std::string> words = {std::to_string(number), NameOf(kind)};
      words.insert(words.end(), sweep.words.begin(), sweep.words.end());
      TestProcess program(sweep.role, words);
      const std::optional<int> status = WaitForEnd(sweep, program, outcomes);
      const bool hasFailed = program.Hear(0ms) == "failed";
      ASSERT_TRUE(status);
      EXPECT_TRUE(*status == 0 || (hasFailed && sweep.refusals.contains(*status))) << *status;
      sweep.check(*status);
      if (!hasFailed || testing::Test::HasFailure()) break;
      outcomes[*status]++;
    }
    Print(sweep.name, kind, number - 1, outcomes);
  }
}

TEST(DaemonWithoutMemory, EndsInOrderAndLeavesNoName) {
  OpenDescriptorCheck noLeaks;
  SweepProgram({"daemon -q",
                "QuittingDaemon",
                {},
                {},
                [](int) { EXPECT_TRUE(WaitForNoPort(kSessionDaemonPortName, 20s)); },
                true});
}

TEST(ToolWithoutMemory, LeavesAFileOldOrNew) {
  OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const std::string old =
      "<?xml version=\"1.0\"?>\n<plist><dict><key>a</key><integer>1</integer></dict></plist>\n";
  const std::string path = folder.File("list.plist", old);
  const std::string expected = [&] {
    VLTDictionary list;
    EXPECT_EQ(0, list.load(path.c_str(), false));
    EXPECT_EQ(0, list.setInteger("a", 2));
    EXPECT_EQ(0, list.save(path.c_str(), kCFPropertyListXMLFormat_v1_0));
    return ReadFile(path);
  }();
  folder.File("list.plist", old);
  SweepProgram(
      {"plist set", "Tool", {"plist", "set", path, "a", "2"}, {kExitGeneral}, [&](int status) {
         EXPECT_EQ(1u, EntriesOf(folder.Path()));
         EXPECT_EQ(status == 0 ? expected : old, ReadFile(path));
         folder.File("list.plist", old);
       }});
}

TEST(ToolWithoutMemory, LeavesPreferencesOldOrNewAndFindsEveryKeyOrFails) {
  OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const ScopedVariable config("XDG_CONFIG_HOME", folder.Path().c_str());
  const std::string path = folder.Path("veltrane/preferences/com.example.tool.plist");
  const auto write = [&](const char* value) {
    return RunTool({"prefs", "write", "com.example.tool", "key", value});
  };
  const auto isThere = [&](const char* value) {
    return ReadFile(path).find(value) != std::string::npos;
  };
  ASSERT_EQ(0, write("before"));
  ASSERT_TRUE(isThere("before"));
  SweepProgram({"prefs write",
                "Tool",
                {"prefs", "write", "com.example.tool", "key", "after"},
                {kExitGeneral},
                [&](int status) {
                  EXPECT_TRUE(isThere(status == 0 ? "after" : "before")) << ReadFile(path);
                  EXPECT_EQ(2u, EntriesOf(folder.Path("veltrane/preferences")));  // and its lock
                  folder.File("veltrane/preferences/com.example.tool.plist",
                              "<plist><dict><key>key</key><string>before</string></dict></plist>");
                }});
  // Not kExitNotFound: the key is there.
  const std::vector<std::string> read = {"prefs", "read", "com.example.tool", "key"};
  SweepProgram({"prefs read", "Tool", read, {kExitGeneral}, [](int) {}});
}

}  // namespace
