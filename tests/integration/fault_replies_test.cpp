#include "tests/integration/raw_peer.h"

// Replies without a request, and requests that cross.

namespace {

using FalseReplies = FaultTest;

constexpr SInt32 kFalse = -77;  // the number of a false reply

// Replies to each request with the running count of requests, and surrounds each right reply with
// false ones.
TEST_ROLE(LyingServer) {
  RawPort port(8, role.PortName());
  role.SignalReady();
  RawPeer peer = port.Accept();
  SInt32 count = 0;
  uint64_t before = 0;
  while (const auto request = peer.ReadFrame(60s)) {
    const uint64_t number = request->header.requestNumber;
    for (const uint64_t guess : {uint64_t{0}, number - 1, number + 1, number ^ (uint64_t{1} << 63),
                                 number << 32 | number >> 32, UINT64_MAX}) {
      if (guess != number) peer.Reply(guess, kFalse);
    }
    peer.Reply(before, kFalse);                                   // late, and repeated
    peer.Write(RawFrame(RawRequest(number), kAEAnswer, kFalse));  // a request, not a reply
    peer.Reply(number, ++count);
    peer.Reply(number, kFalse);
    // The likely numbers of the next requests.
    for (uint64_t next = 1; next <= 3; next++) peer.Reply(number + next, kFalse);
    // The distance to the one before, kept.
    if (before != 0) peer.Reply(number + (number - before), kFalse);
    before = number;
  }
  return kRoleDone;
}

TEST(LyingServers, GetNoFalseReplyAccepted) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("LyingServer");
  RunOnThread([&] {
    for (SInt32 i = 1; i <= 300 * TestScale(); i++) {
      const FaultAnswer answer = AskServer(server.PortName());
      ASSERT_EQ(0, answer.status);
      ASSERT_EQ(i, answer.number);
    }
  });
  EXPECT_EQ(kRoleDone, server.Wait(20s));
}

TEST_F(FalseReplies, OfAClientEndItsConnectionAndReachNobody) {
  for (uint64_t number = 0; number < 50; number++) {
    RawPeer peer(server.PortName());
    peer.Reply(number, kFalse);
    EXPECT_TRUE(peer.WaitHungUp());
  }
  RunOnThread([&] { EXPECT_EQ(4, AskServer(server.PortName(), kEchoID, 4).number); });
}

// A server whose handler sends a request to another server.
class CrossingListener : public FaultListener {
 public:
  CrossingListener(TestRole* owner, std::string peer, SInt32 patience)
      : FaultListener(owner), other(std::move(peer)), ticks(patience) {}

 private:
  bool Serve(AEEventID eventID, SInt32 number, const AppleEvent& event,
             AppleEvent* reply) override {
    if (eventID != kCrossID) return FaultListener::Serve(eventID, number, event, reply);
    role->Tell("asked");
    if (role->Hear(60s) != "cross") return false;
    const SInt32 status = AskServer(other.c_str(), kEchoID, 1, "", ticks).status;
    return AEPutParamPtr(reply, kNumberKey, typeSInt32, &status, sizeof status) == 0;
  }

  const std::string other;
  const SInt32 ticks;

 public:
  static constexpr AEEventID kCrossID = FourCC('c', 'r', 'o', 's');
};

TEST_ROLE(CrossingServer) {
  CrossingListener listener(&role, role.Argument(0), role.NumberArgument(1));
  return listener.ServeForEver();
}

TEST(CrossingRequests, EndInOneTimeOut) {
  OpenDescriptorCheck noLeaks;
  const std::string nameA = UniquePortName(), nameB = UniquePortName();
  TestProcess a("CrossingServer", nameA.c_str(), {nameB, "30"});
  TestProcess b("CrossingServer", nameB.c_str(), {nameA, "1200"});
  ASSERT_TRUE(a.WaitReady(20s));
  ASSERT_TRUE(b.WaitReady(20s));
  // Each keeps one connection to the other, and is the other's.
  ProcessUse linkedA = UseOf(a.Pid()), linkedB = UseOf(b.Pid());
  linkedA.descriptors += 2;
  linkedB.descriptors += 2;
  for (int round = 0; round < 3; round++) {
    FaultAnswer ofA, ofB;
    std::thread askA([&] { ofA = AskServer(nameA.c_str(), CrossingListener::kCrossID); });
    std::thread askB([&] { ofB = AskServer(nameB.c_str(), CrossingListener::kCrossID); });
    EXPECT_EQ("asked", a.Hear(20s));
    EXPECT_EQ("asked", b.Hear(20s));
    a.Tell("cross");
    b.Tell("cross");
    askA.join();
    askB.join();
    EXPECT_EQ(0, ofA.status);
    EXPECT_EQ(errAETimeout, ofA.number);  // the less patient one
    EXPECT_EQ(0, ofB.status);
    EXPECT_EQ(0, ofB.number);
    RunOnThread([&] {
      EXPECT_EQ(8, AskServer(nameA.c_str(), kEchoID, 8).number);
      EXPECT_EQ(9, AskServer(nameB.c_str(), kEchoID, 9).number);
    });
    if (round == 1) {
      // From the second look-up on each keeps the file of the other's name.
      linkedA.descriptors++;
      linkedB.descriptors++;
    }
    ExpectBackAt(linkedA, a.Pid());
    ExpectBackAt(linkedB, b.Pid());
  }
}

}  // namespace
