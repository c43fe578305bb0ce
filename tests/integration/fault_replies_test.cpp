#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CoreServices/CoreServices.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/host/session/name_registry.h"
#include "platform/host/session/port_address.h"
#include "tests/integration/fault_server.h"
#include "tests/integration/process_use.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Answers that nobody asked for, and questions that cross.

namespace {

using FalseReplies = FaultTest;

constexpr SInt32 kFalse = -77;  // what a false answer says

// A published port whose connections the role serves itself. Result: the first connection.
std::optional<RawPeer> AcceptUnder(TestRole& role) {
  const auto portID = static_cast<uint64_t>(getpid());  // those of the host layer are random
  sockaddr_un address = {};
  socklen_t size = 0;
  int claim = -1;
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!HostPortAddress(portID, &address, &size)) return std::nullopt;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0) return std::nullopt;
  if (listen(listener, 8) != 0) return std::nullopt;
  if (HostClaimName(role.PortName(), portID, &claim) != 0) return std::nullopt;
  role.SignalReady();
  pollfd entry = {listener, POLLIN, 0};
  if (poll(&entry, 1, 20000) != 1) return std::nullopt;
  return RawPeer(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

void Say(RawPeer& peer, uint64_t requestNumber, SInt32 number) {
  peer.Write(RawFrame(RawReply(requestNumber), kAEAnswer, number));
}

// Answers every request rightly with the running count of requests, and surrounds each right answer
// with false ones.
TEST_ROLE(LyingServer) {
  std::optional<RawPeer> peer = AcceptUnder(role);
  if (!peer) return kRoleFailed;
  SInt32 count = 0;
  uint64_t before = 0;
  while (const auto request = peer->ReadFrame(60s)) {
    const uint64_t number = request->header.requestNumber;
    for (const uint64_t guess : {uint64_t{0}, number - 1, number + 1, number ^ (uint64_t{1} << 63),
                                 number << 32 | number >> 32, UINT64_MAX}) {
      if (guess != number) Say(*peer, guess, kFalse);
    }
    Say(*peer, before, kFalse);                                    // late, and repeated
    peer->Write(RawFrame(RawRequest(number), kAEAnswer, kFalse));  // a question, no answer
    Say(*peer, number, ++count);
    Say(*peer, number, kFalse);
    // What the next ones are likely to be called, before they are asked.
    for (uint64_t next = 1; next <= 3; next++) Say(*peer, number + next, kFalse);
    // The distance to the one before, kept.
    if (before != 0) Say(*peer, number + (number - before), kFalse);
    before = number;
  }
  return kRoleDone;
}

TEST(LyingServers, AreNeverTakenForTheAnswer) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("LyingServer");
  ASSERT_TRUE(server.WaitReady(20s));
  RunOnThread([&] {
    for (SInt32 i = 1; i <= 300 * TestScale(); i++) {
      const FaultAnswer answer = AskServer(server.PortName());
      ASSERT_EQ(0, answer.status);
      ASSERT_EQ(i, answer.number);
    }
  });
  EXPECT_EQ(kRoleDone, server.Wait(20s));
}

// A client that answers instead of asking is hung up on, and what it says reaches nobody.
TEST_F(FalseReplies, OfAClientEndItsConnection) {
  for (uint64_t number = 0; number < 50; number++) {
    RawPeer peer(server.PortName());
    Say(peer, number, kFalse);
    EXPECT_TRUE(peer.WaitHungUp());
  }
  RunOnThread([&] { EXPECT_EQ(4, AskServer(server.PortName(), kEchoID, 4).number); });
}

// A server whose handler asks another server.
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
  if (listener.Listen() != 0) return kRoleFailed;
  role.SignalReady();
  CFRunLoopRun();
  return kRoleFailed;
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
