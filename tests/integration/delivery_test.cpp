#include <gtest/gtest.h>

#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "aeport/port_listener.h"
#include "tests/integration/fault_server.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "util/app_exception.h"

// What reaches another process, in which order, and what does not hold it up.

namespace {

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
        EXPECT_EQ(sent, MarksAt(server));  // asked behind them, answered behind them
      }
    }
  });
  RunOnThread([&] {
    EXPECT_TRUE(WaitUntil([&] { return MarksAt(server).size() >= sent.size(); }, 20s));
    EXPECT_EQ(sent, MarksAt(server));
  });
}

TEST_ROLE(Asker) {
  const std::string data = PatternBytes(8 << 20);
  role.SignalReady();
  AskServer(role.PortName(), kEchoID, 0, data);
  return kRoleDone;
}

TEST_F(Delivery, AClientThatVanishesDisturbsNobody) {
  for (SInt32 round = 0; round < 5; ++round) {
    TestProcess client("Asker", server.PortName(), {});
    EXPECT_TRUE(client.WaitReady(20s));
    client.KillAndWait(20s);  // in the middle of its 8 MiB, or of the answer
    RunOnThread([&] { EXPECT_EQ(round, AskServer(server.PortName(), kEchoID, round).number); });
  }
}

TEST_ROLE(Thrower) {
  const VLTAEDispatchCallback fail = [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) -> OSStatus {
    throw VLTAppException(-1);
  };
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), fail, nullptr) != 0) {
    return kRoleFailed;
  }
  role.SignalReady();
  try {
    RunApplicationEventLoop();
  } catch (const VLTAppException&) {
    return 7;
  }
  return kRoleDone;
}

TEST(Handlers, AnExceptionReachesTheProgram) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Thrower");
  ASSERT_TRUE(server.WaitReady(20s));
  RunOnThread([&] { EXPECT_EQ(connectionInvalid, AskServer(server.PortName()).status); });
  EXPECT_EQ(7, server.Wait(20s));
}

}  // namespace
