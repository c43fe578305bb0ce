#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <thread>

#include "aeport/port_listener.h"
#include "tests/aeport/serving.h"
#include "tests/integration/process_use.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_role.h"

// Whole programs while an allocation fails: a server with a client of another process.

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

// The server's side. Signals arm and disarm it, so that nothing but the request is in between:
// SIGUSR1 makes the next allocation in order fail, each time one further on than the last time;
// SIGUSR2 ends that and tells whether one has failed. SIGHUP begins again with the other kind.

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
    return kRoleFailed;
  }
  role.SignalReady();
  CFRunLoopRun();
  return kRoleDone;
}

// Sends an event with a list of texts and a long text, and compares what comes back.
OSStatus AskForEcho(const char* port) {
  const std::string text(3000, 't');
  VLTPortDestinationAddress address(port);
  VLTPortAppleEvent event(FourCC('t', 'e', 's', 't'), kPing, kAEWaitReply, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  AEDesc list = {typeNull, nullptr};
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = AECreateList(nullptr, 0, false, &list);
  for (int i = 0; err == 0 && i < 6; i++) err = AEPutPtr(&list, 0, typeChar, text.data(), 100);
  if (err == 0) err = AEPutParamDesc(&event.event, FourCC('l', 'i', 's', 't'), &list);
  if (err == 0) err = AEPutParamPtr(&event.event, keyDirectObject, typeChar, text.data(), 3000);
  if (err == 0) err = event.sendEvent(0, 10 * 60, kAENormalPriority);
  Size size = 0;
  DescType type = typeNull;
  if (err == 0) err = AESizeOfParam(&event.reply, keyDirectObject, &type, &size);
  EXPECT_TRUE(err != 0 || size == 3000);
  event.finalizeEvent();
  AEDisposeDesc(&list);
  return err;
}

// A server that runs out of memory refuses the one request with -108 and serves the next.
void SweepServer(const char* name, bool onNewConnection) {
  TestProcess server("ServerWithoutMemory");
  ASSERT_TRUE(server.WaitReady(20s));
  const auto ask = [&] {
    OSStatus err = -1;
    const auto body = [&] { err = AskForEcho(server.PortName()); };
    onNewConnection ? std::thread(body).join() : body();
    return err;
  };
  // With a connection that stays, it belongs to what the server holds afterwards.
  ASSERT_TRUE(onNewConnection || ask() == 0);
  const ProcessUse before = UseOf(server.Pid());
  for (const AllocationFailure kind : kKinds) {
    Outcomes outcomes;
    int number = 1;
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

TEST(ServerWithoutMemory, AcceptsAConnectionLaterWithoutLosingIt) {
  SweepServer("accept and dispatch", true);
}

}  // namespace
