#include "platform/host/base/clock.h"
#include "tests/integration/raw_peer.h"

// Peers that do next to nothing, in numbers: they hold descriptors, buffers and patience of a
// server that has few of the first.

namespace {

using UnreadAnswers = FaultTest;

constexpr int kServerDescriptors = 128;
constexpr int kSlowPeers = 500;
constexpr int kSilentPeers = 1000;
constexpr SInt32 kUnreadReply = 10 << 20;  // bytes
constexpr int64_t kPace = 5 * kHostMillisecond;
// One who waits behind another waits until that one's time is up, half a minute, or until a place
// comes free. A busy machine alone does not take so long.
constexpr int64_t kMostForAnAnswer = 8 * kHostSecond;

bool AskAndCheck(const char* name, SInt32 number) {
  const FaultAnswer answer = AskServer(name, kEchoID, number);
  return answer.status == 0 && answer.number == number;
}

// A new connection that takes its time between connecting and asking, and in the middle of it.
bool AskWithPauses(const char* name, SInt32 number) {
  const std::string frame = RawFrame(RawRequest(1), kEchoID, number);
  RawPeer peer(name);
  const int64_t start = HostNow();
  SleepUntil(start + kPace);
  if (!peer.Write(frame.substr(0, 50)) || !peer.WaitTaken()) return false;
  SleepUntil(start + 2 * kPace);
  return peer.Write(frame.substr(50)) && peer.ReadFrame().has_value();
}

// Asks at a steady pace until the test says something: on one connection ("kept"), or each time on
// one of its own, at once ("new") or in pieces ("hesitant"). Each request must be answered, soon.
TEST_ROLE(GoodClient) {
  const std::string kind = role.Argument(0);
  int sent = 0, answered = 0;
  const auto ask = [&] {
    const int64_t start = HostNow();
    const bool right = kind == "hesitant" ? AskWithPauses(role.PortName(), ++sent)
                                          : AskAndCheck(role.PortName(), ++sent);
    if (right && HostNow() - start < kMostForAnAnswer) answered++;
  };
  ask();
  role.SignalReady();
  for (bool isOver = false; !isOver || sent <= 10; isOver = isOver || role.Hear(0ms)) {
    const int64_t next = HostNow() + kPace;
    if (kind == "new") {
      RunOnThread(ask);
    } else {
      ask();
    }
    SleepUntil(next);
  }
  return answered == sent ? kRoleDone : RoleFailed();
}

class SlowPeers {
 public:
  SlowPeers(const char* port, int count) : name(port), frame(RawFrame(RawRequest(1), kEchoID, 1)) {
    for (int i = 0; i < count; i++) {
      peers.push_back({RawPeer(name), 0});
      WriteOneByte(peers.back());
    }
  }

  // Each writes one more byte. One that was hung up on connects anew and begins again.
  void WriteOneByteEach() {
    for (Peer& peer : peers) {
      if (WriteOneByte(peer)) continue;
      peer = {RawPeer(name), 0};
      WriteOneByte(peer);
    }
  }

 private:
  struct Peer {
    RawPeer connection;
    size_t written;
  };

  bool WriteOneByte(Peer& peer) {
    if (peer.written == frame.size()) return false;
    return peer.connection.Write(frame.substr(peer.written++, 1));
  }

  const char* name;
  std::string frame;
  std::vector<Peer> peers;
};

TEST(SlowPeers, HoldNobodyUpThoughDescriptorsAreFew) {
  RaiseDescriptorLimit();
  OpenDescriptorCheck noLeaks;
  ReadyProcess server("NarrowFaultServer", {std::to_string(kServerDescriptors)});
  const ProcessUse before = UseOf(server.Pid());
  TestProcesses clients;
  for (const char* kind : {"kept", "new", "hesitant"}) {
    clients.push_back(std::make_unique<TestProcess>("GoodClient", server.PortName(),
                                                    std::vector<std::string>{kind}));
    ASSERT_TRUE(clients.back()->WaitReady(20s)) << kind;
  }
  {
    RawPeer greedy(server.PortName());
    greedy.Write(RawFrame(RawRequest(1), kFillID, kUnreadReply));
    SlowPeers slow(server.PortName(), kSlowPeers);
    std::vector<RawPeer> silent;
    for (int i = 0; i < kSilentPeers; i++) silent.emplace_back(server.PortName());

    const int64_t began = HostNow();
    const int64_t used = UseOf(server.Pid()).processorTime;
    const int seconds = 4 * TestScale();
    for (int second = 0; second < seconds; second++) {
      SleepUntil(began + second * kHostSecond);
      slow.WriteOneByteEach();
    }
    const int64_t busy = UseOf(server.Pid()).processorTime - used;
    // Clients that ask 200 times a second take a few per cent; a server that spins takes all.
    EXPECT_LT(busy, (HostNow() - began) / 2);
    for (auto& client : clients) client->Tell("end");
    ExpectDone(clients);
  }
  ExpectBackAt(before, server.Pid());
  RunOnThread([&] { EXPECT_EQ(0, AskServer(server.PortName()).status); });
}

// The allocator may keep room for a large answer once it has made some; it must not keep more of it
// with every client that leaves.
TEST_F(UnreadAnswers, LeaveNothingBehind) {
  size_t early = 0;
  for (int round = 0; round < 20 * TestScale(); round++) {
    {
      std::vector<RawPeer> greedy;
      for (int i = 0; i < 4; i++) {
        greedy.emplace_back(server.PortName());
        ASSERT_TRUE(greedy.back().Write(RawFrame(RawRequest(1), kFillID, kUnreadReply)));
      }
      // Answered behind them, so theirs are under way.
      RunOnThread([&] { EXPECT_EQ(round, AskServer(server.PortName(), kEchoID, round).number); });
    }
    ExpectBackAt(before, server.Pid());
    if (round == 3) early = UseOf(server.Pid()).memory;
  }
  if (kMemoryTells) {
    EXPECT_LT(UseOf(server.Pid()).memory, early + (size_t{4} << 20));
  }
}

}  // namespace
