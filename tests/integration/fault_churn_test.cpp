#include <gtest/gtest.h>
#include <unistd.h>

#include <CoreServices/CoreServices.h>

#include <sstream>
#include <string>
#include <vector>

#include "platform/host/introspect.h"
#include "tests/integration/fault_server.h"
#include "tests/integration/process_use.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Ports and connections that come and go by the thousand leave nothing behind.

namespace {

using Churn = FaultTest;

constexpr int kChurners = 8;
constexpr int kRounds = 1250;  // of each; scaled

void TellHolding(TestRole& role, int failures) {
  const ProcessUse use = UseOf(getpid());
  std::ostringstream line;
  line << use.memory << ' ' << use.resident << ' ' << HostCountPorts().portNames << ' ' << failures;
  role.Tell(line.str());
}

// Connects, claims a name of its own, finds it, lets it go and closes, so many times. After a tenth
// and at the end it tells how much memory and how many entries it holds.
TEST_ROLE(Churner) {
  const int rounds = role.NumberArgument(0);
  const std::string own = std::string(role.PortName()) + "." + std::to_string(getpid());
  int failures = 0;
  for (int i = 0; i < rounds; i++) {
    if (i == rounds / 10) {
      TellHolding(role, failures);
      if (role.Hear(60s) != "go on") return kRoleFailed;
    }
    RunOnThread([&] {
      if (AskServer(role.PortName(), kEchoID, i).number != i) failures++;
    });
    VLTPortAEMachPortListener listener;
    if (ListenUnder(listener, own.c_str()) != 0) failures++;
    if (LookUpPort(own.c_str()) != 0) failures++;
    listener.Deallocate(0);
    if (LookUpPort(own.c_str()) == 0) failures++;
  }
  TellHolding(role, failures);
  role.Hear(60s);
  return kRoleDone;
}

struct Holding {
  ProcessUse use;
  size_t portNames = 0;
  int failures = -1;
};

Holding HearHolding(TestProcess& churner) {
  Holding holding;
  std::istringstream line(churner.Hear(300s).value_or(""));
  line >> holding.use.memory >> holding.use.resident >> holding.portNames >> holding.failures;
  EXPECT_EQ(0, holding.failures);
  return holding;
}

// What a process made itself may grow by one per cent of all that it has in memory.
void ExpectLevel(const ProcessUse& early, const ProcessUse& late) {
  if (kMemoryTells) {
    EXPECT_LE(late.memory, early.memory + early.resident / 100);
  }
}

TEST_F(Churn, LeavesMemoryWhereItWas) {
  TestProcesses churners = StartProcesses(kChurners, "Churner", server.PortName(),
                                          {std::to_string(kRounds * TestScale())});
  std::vector<Holding> early;
  for (auto& churner : churners) early.push_back(HearHolding(*churner));
  const ProcessUse serverEarly = UseOf(server.Pid());
  for (auto& churner : churners) churner->Tell("go on");
  for (size_t i = 0; i < churners.size(); i++) {
    const Holding late = HearHolding(*churners[i]);
    ExpectLevel(early[i].use, late.use);
    EXPECT_EQ(early[i].portNames, late.portNames);
  }
  ExpectLevel(serverEarly, UseOf(server.Pid()));
  for (auto& churner : churners) churner->Tell("end");
  ExpectDone(churners);
  EXPECT_EQ(1u, HostListNames().size());  // the server's
}

}  // namespace
