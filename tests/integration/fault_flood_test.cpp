#include <gtest/gtest.h>

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/fault_server.h"
#include "tests/integration/process_use.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// One sender that never stops, beside many that ask as one does.

namespace {

using Flood = FaultTest;

constexpr int kClients = 50;
constexpr int kRequests = 100;  // of each client in a run; scaled
// A server that served the flood's buffer first would show hundreds, in every turn; a busy machine
// spoils a turn now and then.
constexpr int kMostRatio = 3;
constexpr int kMostTurns = 5;

TEST_ROLE(Flooder) {
  mach_port_t port = MACH_PORT_NULL;
  if (LookUpPort(role.PortName(), &port) != 0) return kRoleFailed;
  if (SendOneWay(port, kDropID, 0) != 0) return kRoleFailed;
  role.SignalReady();
  SInt32 sent = 1, failed = 0;
  while (!role.Hear(0ms)) {
    for (int i = 0; i < 100; i++, sent++) failed += SendOneWay(port, kDropID, sent) != 0;
  }
  role.Tell(std::to_string(sent) + " " + std::to_string(failed));
  return kRoleDone;
}

// For each "go": asks so many times, then tells all waits in microseconds. A wrong answer is -1.
TEST_ROLE(NormalClient) {
  if (AskServer(role.PortName()).status != 0) return kRoleFailed;
  role.SignalReady();
  while (role.Hear(120s) == "go") {
    std::ostringstream line;
    for (SInt32 i = 0; i < role.NumberArgument(0); i++) {
      const FaultAnswer answer = AskServer(role.PortName(), kEchoID, i);
      const bool right = answer.status == 0 && answer.number == i;
      line << (right ? answer.elapsed / 1000 : -1) << ' ';
    }
    role.Tell(line.str());
  }
  return kRoleDone;
}

// Microseconds that 99 of 100 requests of all clients stayed below.
int64_t RunClients(TestProcesses& clients, int requests) {
  for (auto& client : clients) EXPECT_TRUE(client->Tell("go"));
  std::vector<int64_t> waits;
  for (auto& client : clients) {
    std::istringstream line(client->Hear(120s).value_or(""));
    for (int64_t wait; line >> wait;) waits.push_back(wait);
  }
  EXPECT_EQ(clients.size() * static_cast<size_t>(requests), waits.size());
  EXPECT_EQ(0, std::count(waits.begin(), waits.end(), -1));
  if (waits.empty()) return 0;
  std::sort(waits.begin(), waits.end());
  return waits[waits.size() * 99 / 100];
}

struct Waits {
  int64_t quiet = 0;
  int64_t flooded = 0;
  bool AreClose() const { return flooded <= kMostRatio * std::max<int64_t>(quiet, 1000); }
};

// What the clients wait for without and then with a flood beside them.
void RunTurn(const TestProcess& server, TestProcesses& clients, int requests, Waits* waits) {
  waits->quiet = RunClients(clients, requests);
  TestProcess flooder("Flooder", server.PortName(), {});
  ASSERT_TRUE(flooder.WaitReady(20s));
  waits->flooded = RunClients(clients, requests);
  flooder.Tell("end");
  std::istringstream line(flooder.Hear(60s).value_or(""));
  int64_t sent = 0, failed = -1;
  line >> sent >> failed;
  EXPECT_GT(sent, kClients);  // it did flood
  EXPECT_EQ(0, failed);
  EXPECT_EQ(kRoleDone, flooder.Wait(20s));
}

TEST_F(Flood, OfOneSenderHardlyTouchesTheOthers) {
  const int requests = kRequests * TestScale();
  TestProcesses clients =
      StartProcesses(kClients, "NormalClient", server.PortName(), {std::to_string(requests)});
  ExpectReady(clients);
  Waits waits;
  for (int turn = 1; turn <= kMostTurns; turn++) {
    ASSERT_NO_FATAL_FAILURE(RunTurn(server, clients, requests, &waits));
    if (waits.AreClose()) break;
  }
  EXPECT_TRUE(waits.AreClose()) << waits.quiet << " and " << waits.flooded << " us";
  for (auto& client : clients) client->Tell("end");
  ExpectDone(clients);
}

}  // namespace
