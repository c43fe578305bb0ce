#include <algorithm>
#include <atomic>

#include "platform/host/wire/gather.h"
#include "tests/integration/raw_peer.h"

// Peers that hold as much of a server as they may, so that little is left for others. The server
// has two ports: its limits apply to the process, whichever port a connection is to.

namespace {

constexpr SInt32 kMegabyte = 1 << 20;
constexpr int kFewDescriptors = 40;
constexpr SInt32 kPatience = 15 * 60;  // ticks; half of what a stuck frame may take

int ServeTwoPorts(TestRole& role) {
  FaultListener first(&role);
  VLTPortAEMachPortListener second;
  const VLTAEDispatchCallback echo = [](UInt32, UInt32, const AEDesc* event, AEDesc* reply, void*) {
    SInt32 number = NumberOf(*event);
    const size_t size = number < 0 ? static_cast<size_t>(-number) : 0;
    const std::string data = size > 0 ? PatternBytes(size) : DataOf(*event);
    AEPutParamPtr(reply, kNumberKey, typeSInt32, &number, sizeof number);
    return OSStatus{
        AEPutParamPtr(reply, kDataKey, typeChar, data.data(), static_cast<Size>(data.size()))};
  };
  const std::string name = std::string(role.PortName()) + ".2";
  if (first.Listen() != 0) return RoleFailed();
  if (second.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), echo, nullptr) != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  CFRunLoopRun();
  return RoleFailed();
}

TEST_ROLE(TwoPortServer) { return ServeTwoPorts(role); }

TEST_ROLE(NarrowTwoPortServer) {
  if (!HaveFewDescriptors(role.NumberArgument(0))) return RoleFailed();
  return ServeTwoPorts(role);
}

class TwoPorts : public testing::Test {
 protected:
  explicit TwoPorts(const char* role = "TwoPortServer", std::vector<std::string> arguments = {})
      : server(role, std::move(arguments)), second(std::string(server.PortName()) + ".2") {}
  void TearDown() override { server.ExpectUnchanged(); }

  // Waits until the server has served all that was sent to its first port before.
  void Settle() { CountsOf(server.PortName()); }

  OpenDescriptorCheck noLeaks;
  ServerProcess server;
  const std::string second;
};

class FewDescriptors : public TwoPorts {
 protected:
  FewDescriptors() : TwoPorts("NarrowTwoPortServer", {std::to_string(kFewDescriptors)}) {}

  // Writes `frame` on connections of this process to the first port until the server has no
  // descriptor left.
  std::vector<RawPeer> TakeAll(const std::string& frame) {
    std::vector<RawPeer> peers;
    for (size_t i = server.before.descriptors; i < kFewDescriptors; i++) {
      peers.emplace_back(server.PortName());
      EXPECT_TRUE(peers.back().Write(frame));
    }
    EXPECT_TRUE(WaitUntil([&] { return UseOf(server.Pid()).descriptors == kFewDescriptors; }, 20s));
    return peers;
  }
};

size_t HungUp(std::vector<RawPeer>& peers) {
  return static_cast<size_t>(std::count_if(peers.begin(), peers.end(),
                                           [](RawPeer& peer) { return peer.WaitHungUp(0ms); }));
}

// Both ports serve a request of a megabyte.
void ExpectLargeRequestsServed(const ServerProcess& server, const std::string& second) {
  const std::string large = PatternBytes(kMegabyte);
  RunOnThread([&] {
    EXPECT_TRUE(large == AskServer(second.c_str(), kEchoID, 1, large, kPatience).data);
    EXPECT_TRUE(large == AskServer(server.PortName(), kEchoID, 1, large, kPatience).data);
  });
}

// Clients that send the largest frames at once, together more than the server may hold.
TEST_ROLE(LargeAsker) {
  const std::string large = PatternBytes(15 << 20);
  role.SignalReady();
  if (role.Hear(60s) != "go") return RoleFailed();
  const FaultAnswer answer =
      AskServer(role.PortName(), kMarkID, role.NumberArgument(0), large, 50 * 60);
  return answer.status == 0 && answer.number == role.NumberArgument(0) ? kRoleDone : RoleFailed();
}

void ExpectLargeFramesArrive(const ServerProcess& server) {
  TestProcesses clients;
  for (int i = 0; i < 8; i++) {
    clients.push_back(std::make_unique<TestProcess>("LargeAsker", server.PortName(),
                                                    std::vector<std::string>{std::to_string(i)}));
  }
  ExpectReady(clients);
  for (auto& client : clients) client->Tell("go");
  ExpectDone(clients);
}

TEST_F(TwoPorts, PeersStuckInLargeFramesDelayNobody) {
  const std::string stuck = RawHeader((16 << 20) - 32) + std::string(15 * kMegabyte + 500000, 'x');
  std::vector<RawPeer> peers;
  for (int i = 0; i < 5; i++) {
    peers.emplace_back(server.PortName());
    EXPECT_TRUE(peers.back().Write(stuck));
  }
  ExpectLargeRequestsServed(server, second);
  EXPECT_LE(CountsOf(server.PortName()).partialBytes, size_t{65} << 20);
  EXPECT_LE(HungUp(peers), 2u);  // no more go than room is needed for
  peers.clear();
  ExpectLargeFramesArrive(server);  // also after stalled frames
}

// Forty stop after a few hundred kilobytes each, some in the server and some still in the socket.
TEST_F(TwoPorts, ManyPeersStuckInFramesDelayNobody) {
  const std::string stuck = RawHeader((16 << 20) - 32) + std::string(14 * kMegabyte, 'x');
  std::vector<RawPeer> peers;
  for (int i = 0; i < 4; i++) {
    peers.emplace_back(server.PortName());
    EXPECT_TRUE(peers.back().Write(stuck));
  }
  for (int i = 0; i < 40; i++) {
    peers.emplace_back(i % 2 == 0 ? server.PortName() : second.c_str());
    peers.back().WriteAtOnce(stuck.substr(0, 700000));
  }
  ExpectLargeRequestsServed(server, second);
}

// Peers that write a byte now and then must not delay others either.
TEST_F(TwoPorts, PeersThatTrickleDelayNobody) {
  const std::string header = RawHeader((16 << 20) - 32);
  std::vector<RawPeer> peers;
  for (int i = 0; i < 6; i++) {
    const size_t size = i < 4 ? 15 * kMegabyte + 500000 : 900000;
    peers.emplace_back(server.PortName());
    EXPECT_TRUE(peers.back().Write(header + std::string(size, 'x')));
  }
  std::atomic<bool> ended{false};
  std::thread trickle([&] {
    const std::string more(1 << 18, 'x');
    while (!ended) {
      for (size_t i = 0; i < peers.size(); i++) peers[i].WriteAtOnce(i < 4 ? "x" : more);
      WaitUntil([&] { return ended.load(); }, 100ms);
    }
  });
  ExpectLargeRequestsServed(server, second);
  ended = true;
  trickle.join();
}

TEST_F(TwoPorts, LargeFramesOfManyClientsAllArrive) { ExpectLargeFramesArrive(server); }

TEST_F(TwoPorts, TheFullestConnectionGoesWhicheverPortItIsTo) {
  std::vector<RawPeer> unread;
  for (const SInt32 size : {12, 15, 14, 13, 9}) {
    unread.emplace_back(server.PortName());
    ASSERT_TRUE(unread.back().Write(RawFrame(RawRequest(1), kFillID, size * kMegabyte)));
    Settle();
  }
  RawPeer slow(second.c_str());
  ASSERT_TRUE(slow.Write(RawFrame(RawRequest(1), kEchoID, -8 * kMegabyte)));
  const auto areFiveLeft = [&] { return CountsOf(server.PortName()).connections == 5; };
  EXPECT_TRUE(WaitUntil(areFiveLeft, 20s));
  EXPECT_LE(CountsOf(server.PortName()).queuedBytes, size_t{64} << 20);
  EXPECT_TRUE(unread[1].WaitHungUp());
  const auto reply = slow.ReadFrame();
  ASSERT_TRUE(reply.has_value());
  EXPECT_NE(std::string::npos, reply->body.find(PatternBytes(8 * kMegabyte)));
}

TEST_F(FewDescriptors, OfTheOtherPortAreGivenUpToo) {
  std::vector<RawPeer> peers = TakeAll(RawFrame(RawRequest(1), kEchoID, 1));
  RawPeer newcomer(second.c_str());
  EXPECT_TRUE(newcomer.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
  EXPECT_EQ(1u, HungUp(peers));
}

TEST_F(FewDescriptors, OfAProcessThatAsksAndDoesNotReadAreGivenUp) {
  std::vector<RawPeer> peers = TakeAll(RawFrame(RawRequest(1), kFillID, kMegabyte));
  Settle();
  for (const std::string& port : {std::string(server.PortName()), second}) {
    RawPeer newcomer(port.c_str());
    EXPECT_TRUE(newcomer.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
  }
}

// A request that is being handled protects its connection, but no process has more than a quarter
// of the descriptors so protected.
TEST_F(FewDescriptors, OfAProcessWhoseRequestsAllLastAreGivenUpDownToAQuarter) {
  std::vector<RawPeer> peers = TakeAll(RawFrame(RawRequest(1), kHoldID, 1));
  for (size_t i = 0; i < peers.size(); i++) ASSERT_EQ("held", server.Hear(20s));
  TestProcesses others;
  while (others.size() + kFewDescriptors / 4 < peers.size()) {
    others.push_back(
        std::make_unique<TestProcess>("Holder", server.PortName(), std::vector<std::string>{"1"}));
    ASSERT_TRUE(others.back()->WaitReady(20s));
    ASSERT_EQ("held", server.Hear(20s));
  }
  RawPeer newcomer(second.c_str());
  ASSERT_TRUE(newcomer.Write(RawFrame(RawRequest(1), kEchoID, 1)));
  EXPECT_EQ(std::nullopt, newcomer.ReadFrame(500ms));
  EXPECT_EQ(others.size(), HungUp(peers));
  for (auto& other : others) EXPECT_EQ(std::nullopt, other->Wait(0ms));
  ASSERT_TRUE(others.back()->KillAndWait(20s));
  EXPECT_TRUE(newcomer.ReadFrame());
}

}  // namespace
