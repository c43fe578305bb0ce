#include <servers/bootstrap.h>

#include "tests/integration/fault_server.h"

// Ports that end, and run loops that are run again, in the middle of a request while others wait.

namespace {

constexpr int kWaiting = 20;
constexpr size_t kLastReply = 4 << 20;  // bytes of the last reply of a port

// The events of this test's server.
enum : AEEventID {
  kDestroyID = FourCC('d', 's', 't', 'r'),  // destroys the port and replies
  kDeleteID = FourCC('d', 'e', 'l', 'e'),   // deletes the listener and replies
  kNestID = FourCC('n', 'e', 's', 't'),     // runs the loop until so many others are served
};

class FragileListener : public FaultListener {
 public:
  FragileListener(TestRole* owner, bool* flag) : FaultListener(owner), deleted(flag) {}
  ~FragileListener() override { *deleted = true; }

 private:
  bool Serve(AEEventID eventID, SInt32 number, const AppleEvent& event,
             AppleEvent* reply) override {
    // More than a socket takes at once: the rest leaves after the callout.
    std::string data;
    switch (eventID) {
      case kDestroyID:
        data = PatternBytes(kLastReply);
        mach_port_destroy(mach_task_self(), port);
        break;
      case kDeleteID:
        data = PatternBytes(kLastReply);
        delete this;
        break;
      case kNestID: {
        const int until = served + number;
        role->Tell("nested");
        while (served < until) {
          if (CFRunLoopRunInMode(kCFRunLoopDefaultMode, 20, true) != kCFRunLoopRunHandledSource) {
            return false;
          }
        }
        break;
      }
      default:
        served++;
        return FaultListener::Serve(eventID, number, event, reply);
    }
    AEPutParamPtr(reply, kDataKey, typeChar, data.data(), static_cast<Size>(data.size()));
    return AEPutParamPtr(reply, kNumberKey, typeSInt32, &number, sizeof number) == 0;
  }

  bool* deleted;
  int served = 0;
};

// Listens again when its listener has ended, as long as the test sends "again".
TEST_ROLE(FragileServer) {
  do {
    bool deleted = false;
    auto* listener = new FragileListener(&role, &deleted);
    if (listener->Listen() != 0) return RoleFailed();
    role.SignalReady();
    CFRunLoopRun();
    role.Tell("ended");
    if (!deleted) delete listener;
  } while (role.Hear(60s) == "again");
  return kRoleDone;
}

TEST(PortsEnd, InTheMiddleOfARequest) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("FragileServer");
  const ProcessUse before = UseOf(server.Pid());
  bool first = true;
  for (const AEEventID way : {kDestroyID, kDeleteID, kDestroyID}) {
    SCOPED_TRACE(way);
    if (!first) {
      ASSERT_TRUE(server.Tell("again"));
      ASSERT_TRUE(server.WaitReady(20s));
      ExpectBackAt(before, server.Pid());
    }
    first = false;
    TestProcesses waiters = StartProcesses(kWaiting, "Waiter", server.PortName());
    for (int i = 0; i < kWaiting; i++) EXPECT_EQ("held", server.Hear(20s));
    RunOnThread([&] {
      const FaultAnswer last = AskServer(server.PortName(), way, 77);
      EXPECT_EQ(0, last.status);  // its callout was running, so it still gets a reply
      EXPECT_EQ(77, last.number);
      EXPECT_TRUE(PatternBytes(kLastReply) == last.data);
    });
    EXPECT_EQ("ended", server.Hear(20s));
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, LookUpPort(server.PortName()));
    for (auto& waiter : waiters) EXPECT_EQ(std::to_string(connectionInvalid), waiter->Hear(20s));
    ExpectDone(waiters);
  }
  server.Tell("no more");
  EXPECT_EQ(kRoleDone, server.Wait(20s));
}

TEST_ROLE(Echoer) {
  for (SInt32 i = 0; i < role.NumberArgument(0); i++) {
    if (AskServer(role.PortName(), kEchoID, i).number != i) return RoleFailed();
  }
  return kRoleDone;
}

TEST(NestedRun, ServesOthersWhileARequestIsUnderWay) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("FragileServer");
  const ProcessUse before = UseOf(server.Pid());
  constexpr int kOthers = 8, kEach = 25;
  // Three deep, and all three under way before anybody else asks: the outer one would wait in vain
  // for requests that were served before it came.
  FaultAnswer outer, middle, inner;
  std::thread outerThread([&] { outer = AskServer(server.PortName(), kNestID, 150); });
  EXPECT_EQ("nested", server.Hear(20s));
  std::thread middleThread([&] { middle = AskServer(server.PortName(), kNestID, 50); });
  EXPECT_EQ("nested", server.Hear(20s));
  std::thread innerThread([&] { inner = AskServer(server.PortName(), kNestID, 10); });
  EXPECT_EQ("nested", server.Hear(20s));
  TestProcesses others =
      StartProcesses(kOthers, "Echoer", server.PortName(), {std::to_string(kEach)});
  ExpectDone(others);
  outerThread.join();
  middleThread.join();
  innerThread.join();
  EXPECT_EQ(150, outer.number);
  EXPECT_EQ(50, middle.number);
  EXPECT_EQ(10, inner.number);
  ExpectBackAt(before, server.Pid());
}

// Over the one connection of a thread.
TEST(NestedRun, ServesWhatTheSenderOfTheRequestUnderWaySendsNext) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("FragileServer");
  RunOnThread([&] {
    mach_port_t port = MACH_PORT_NULL;
    ASSERT_EQ(0, LookUpPort(server.PortName(), &port));
    EXPECT_EQ(0, SendOneWay(port, kNestID, 2));
    EXPECT_EQ("nested", server.Hear(20s));
    EXPECT_EQ(0, SendOneWay(port, kDropID, 0));
    EXPECT_EQ(5, AskPort(port, kEchoID, 5).number);
    EXPECT_EQ(6, AskPort(port, kEchoID, 6).number);
  });
}

}  // namespace
