#include <servers/bootstrap.h>

#include <algorithm>
#include <csignal>

#include "platform/host/base/clock.h"
#include "tests/integration/fault_server.h"

// A server that is killed or stopped while many clients wait for it.

namespace {

using ServerStop = FaultTest;

constexpr int kClients = 50;
// Clients learn it within some ten milliseconds. A busy machine may take longer, but not in every
// round, as clients would that only poll.
constexpr int64_t kMostUntilTold = kHostSecond;

TEST(ServerDeath, EveryWaitingClientIsToldAtOnce) {
  OpenDescriptorCheck noLeaks;
  int64_t lastTold = 0;
  for (int round = 0; round < TestScale() || (lastTold >= kMostUntilTold && round < 5); round++) {
    ReadyProcess server("FaultServer");
    TestProcesses clients = StartProcesses(kClients, "Waiter", server.PortName());
    for (int i = 0; i < kClients; i++) ASSERT_EQ("held", server.Hear(20s));
    const int64_t killed = HostNow();
    ASSERT_TRUE(server.KillAndWait(20s));
    for (auto& client : clients) {
      EXPECT_EQ(std::to_string(connectionInvalid), client->Hear(20s));
    }
    lastTold = HostNow() - killed;
    for (auto& client : clients) {
      EXPECT_EQ(std::to_string(connectionInvalid), client->Hear(20s));
      EXPECT_EQ(std::to_string(BOOTSTRAP_UNKNOWN_SERVICE), client->Hear(20s));
    }
    ExpectDone(clients);
    VLTPortAEMachPortListener successor;
    EXPECT_EQ(0, ListenUnder(successor, server.PortName()));
  }
  EXPECT_LT(lastTold, kMostUntilTold);  // in the last round
}

// Sends so many marks, from the number in its argument on, at its test's signal.
TEST_ROLE(Marker) {
  mach_port_t port = MACH_PORT_NULL;
  if (LookUpPort(role.PortName(), &port) != 0 || AskPort(port, kEchoID).status != 0)
    return RoleFailed();
  role.SignalReady();
  if (role.Hear(60s) != "go") return RoleFailed();
  for (SInt32 i = 0; i < role.NumberArgument(1); i++) {
    if (SendOneWay(port, kMarkID, role.NumberArgument(0) + i) != 0) return RoleFailed();
  }
  role.Tell("sent");
  role.Hear(60s);
  return kRoleDone;
}

TEST_F(ServerStop, AClientWithManyQueuedEventsDelaysNoOtherClient) {
  constexpr SInt32 kFlood = 100;
  TestProcess early("Marker", server.PortName(), {"1000", "2"});
  TestProcess flooder("Marker", server.PortName(), {"1", std::to_string(kFlood)});
  TestProcess late("Marker", server.PortName(), {"2000", "2"});
  TestProcess* const senders[] = {&early, &flooder, &late};
  for (TestProcess* sender : senders) ASSERT_TRUE(sender->WaitReady(20s));
  server.Signal(SIGSTOP);
  WaitForState(server.Pid(), 'T');
  for (TestProcess* sender : senders) {
    ASSERT_TRUE(sender->Tell("go"));
    ASSERT_EQ("sent", sender->Hear(20s));
  }
  server.Signal(SIGCONT);
  RunOnThread([&] {
    std::vector<SInt32> marks;
    const auto areAllThere = [&] {
      marks = AskServer(server.PortName(), kTellID).Marks();
      return marks.size() == kFlood + 4;
    };
    ASSERT_TRUE(WaitUntil(areAllThere, 20s));
    for (const SInt32 last : {1001, 2001}) {
      EXPECT_GT(10, std::find(marks.begin(), marks.end(), last) - marks.begin()) << last;
    }
  });
  for (TestProcess* sender : senders) {
    sender->Tell("end");
    EXPECT_EQ(kRoleDone, sender->Wait(20s));
  }
}

}  // namespace
