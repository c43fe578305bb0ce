#include <unistd.h>

#include "platform/host/ports/introspect.h"
#include "platform/host/session/introspect.h"
#include "tests/integration/fault_server.h"

// Ports and connections that come and go by the thousand leave nothing behind.

namespace {

using Churn = FaultTest;

constexpr int kChurners = 8;
constexpr int kRounds = 1250;  // of each; scaled

// Connects, claims a name of its own, finds it, lets it go and closes, so many times. After a tenth
// and at the end it tells how many ports it has names of.
TEST_ROLE(Churner) {
  const int rounds = role.NumberArgument(0);
  const std::string own = std::string(role.PortName()) + "." + std::to_string(getpid());
  for (int i = 0; i < rounds; i++) {
    if (i == rounds / 10) {
      role.Tell(std::to_string(HostCountPorts().portNames));
      if (role.Hear(60s) != "go on") return RoleFailed();
    }
    bool isAnswered = false;
    RunOnThread([&] { isAnswered = AskServer(role.PortName(), kEchoID, i).number == i; });
    VLTPortAEMachPortListener listener;
    if (!isAnswered || ListenUnder(listener, own.c_str()) != 0) return RoleFailed();
    if (LookUpPort(own.c_str()) != 0) return RoleFailed();
    listener.Deallocate(0);
    if (LookUpPort(own.c_str()) == 0) return RoleFailed();
  }
  role.Tell(std::to_string(HostCountPorts().portNames));
  role.Hear(60s);
  return kRoleDone;
}

// What a process made itself may grow by one per cent of all that it has in memory.
void ExpectLevel(const ProcessUse& early, const TestProcess& process) {
  if (kMemoryTells) {
    EXPECT_LE(UseOf(process.Pid()).memory, early.memory + early.resident / 100);
  }
}

TEST_F(Churn, RepeatedClaimAndCloseLeaksNoMemoryAndNoPortNames) {
  TestProcesses churners = StartProcesses(kChurners, "Churner", server.PortName(),
                                          {std::to_string(kRounds * TestScale())});
  std::vector<std::string> earlyNames;
  std::vector<ProcessUse> early;
  for (auto& churner : churners) {
    earlyNames.push_back(churner->Hear(300s).value_or("nothing"));
    early.push_back(UseOf(churner->Pid()));
  }
  const ProcessUse serverEarly = UseOf(server.Pid());
  for (auto& churner : churners) churner->Tell("go on");
  for (size_t i = 0; i < churners.size(); i++) {
    EXPECT_EQ(earlyNames[i], churners[i]->Hear(300s));
    ExpectLevel(early[i], *churners[i]);
  }
  ExpectLevel(serverEarly, server);
  for (auto& churner : churners) churner->Tell("end");
  ExpectDone(churners);
  EXPECT_EQ(1u, HostListNames().size());  // the server's
}

}  // namespace
