#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "platform/host/base/clock.h"
#include "platform/host/session/session_directory.h"
#include "platform/host/wire/gather.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/permissions.h"
#include "tests/support/scratch_folder.h"

// The limits of what one process may hold of a server, and what the server does at each of them.

namespace {

using Unread = FaultTest;
using PartialFrames = FaultTest;
using AbandonedRequests = FaultTest;

constexpr SInt32 kMegabyte = 1 << 20;

std::string Fill(SInt32 size, uint64_t number = 1) {
  return RawFrame(RawRequest(number), kFillID, size);
}

// Waits until the server has served all that was sent to it before.
void Settle(const ServerProcess& server) { CountsOf(server.PortName()); }

// Reads a whole reply to Fill(size).
bool ReadsReply(RawPeer& peer, SInt32 size) {
  const auto frame = peer.ReadFrame();
  return frame && frame->body.find(PatternBytes(static_cast<size_t>(size))) != std::string::npos;
}

TEST_F(Unread, RepliesOfOnePeerMayTakeEightMegabytesBehindTheOneBeingWritten) {
  const std::tuple<std::vector<SInt32>, bool> rows[] = {
      {{15, 7}, true},     // the first, which is being written, does not count
      {{1, 4, 3}, true},   // 7 MiB and headers wait
      {{1, 4, 5}, false},  // 9 MiB wait
      {{15, 15}, false},   // one alone is too much
  };
  for (const auto& [sizes, kept] : rows) {
    SCOPED_TRACE(testing::PrintToString(sizes));
    RawPeer peer(server.PortName());
    for (const SInt32 size : sizes) {
      ASSERT_TRUE(peer.Write(Fill(size * kMegabyte)));
      Settle(server);
    }
    for (const SInt32 size : sizes) {
      if (kept) {
        EXPECT_TRUE(ReadsReply(peer, size * kMegabyte));
      }
    }
    EXPECT_NE(kept, peer.WaitHungUp(kept ? 0ms : 20s));
  }
}

// 15 + 14 + 13 + 12 + 11 + 10 MiB: the last one is too much.
TEST_F(Unread, RepliesOfAllPeersTakeSixtyFourMegabytesAndTheLargestGoes) {
  for (int round = 0; round < 2; round++) {
    std::vector<RawPeer> peers;
    for (SInt32 size = 15; size >= 10; size--) {
      peers.emplace_back(server.PortName());
      ASSERT_TRUE(peers.back().Write(Fill(size * kMegabyte)));
      Settle(server);
    }
    EXPECT_LE(CountsOf(server.PortName()).queuedBytes, size_t{64} << 20);
    EXPECT_TRUE(peers[0].WaitHungUp());
    for (SInt32 size = 14; size >= 10; size--) {
      EXPECT_TRUE(ReadsReply(peers[static_cast<size_t>(15 - size)], size * kMegabyte)) << size;
    }
  }
}

// The allocator may keep room for a large reply once it has made some; it must not keep more with
// every client that leaves.
TEST_F(Unread, RepliesOfClientsThatLeaveAreFreed) {
  size_t early = 0;
  for (int round = 0; round < 20 * TestScale(); round++) {
    std::vector<RawPeer> greedy;
    for (int i = 0; i < 4; i++) {
      greedy.emplace_back(server.PortName());
      ASSERT_TRUE(greedy.back().Write(Fill(10 * kMegabyte)));
    }
    Settle(server);
    greedy.clear();
    ExpectBackAt(before, server.Pid());
    if (round == 3) early = UseOf(server.Pid()).memory;
  }
  if (kMemoryTells) {
    EXPECT_LT(UseOf(server.Pid()).memory, early + (size_t{4} << 20));
  }
}

TEST_F(AbandonedRequests, LeaveNoReplyRightsBehind) {
  const std::string hold = RawFrame(RawRequest(1), kHoldID, 1);
  const size_t names = CountsOf(server.PortName()).portNames;
  RawPeer repeating(server.PortName());
  for (int i = 0; i < 20; i++) {
    // One connection has one sender: its next request ends the wait for the reply before.
    ASSERT_TRUE(repeating.Write(hold));
    EXPECT_EQ("held", server.Hear(20s));
    EXPECT_EQ(names + 1, CountsOf(server.PortName()).portNames);
  }
  for (int i = 0; i < 20; i++) {
    RawPeer leaving(server.PortName());
    ASSERT_TRUE(leaving.Write(hold));
  }
  for (int i = 0; i < 20; i++) EXPECT_EQ("held", server.Hear(20s));
  EXPECT_TRUE(WaitUntil([&] { return CountsOf(server.PortName()).portNames == names + 1; }, 20s));
}

// The reply meets a closed socket, which must end neither the server nor another connection.
TEST_F(AbandonedRequests, OfPeersThatAskAndCloseAtOnceAreServed) {
  const SInt32 sizes[] = {0, 100, kMegabyte};
  RawPeer bystander(server.PortName());
  server.Signal(SIGSTOP);
  WaitForState(server.Pid(), 'T');
  for (SInt32 i = 0; i < 30; i++) {
    RawPeer peer(server.PortName());
    ASSERT_TRUE(peer.Write(RawFrame(RawRequest(1), kMarkID, i) + Fill(sizes[i % 3], 2)));
  }
  server.Signal(SIGCONT);
  EXPECT_TRUE(bystander.Ask(Fill(3)));
  RunOnThread([&] {
    const auto all = [&] { return AskServer(server.PortName(), kTellID).Marks().size() == 30; };
    EXPECT_TRUE(WaitUntil(all, 20s));
  });
}

// The age of a partly received frame, on a clock that leaps.

TEST_ROLE(LeapingServer) {
  FaultListener listener(&role);
  if (listener.Listen() != 0) return RoleFailed();
  role.SignalReady();
  for (;;) {
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, true);
    if (const auto line = role.Hear(0ms)) {
      LeapClock(std::stoi(*line));
      HostNow();
      LeapClock(0);
      role.Tell("leapt");
    }
  }
}

TEST_F(PartialFrames, OlderThanHalfAMinuteEndTheirConnectionAndNoOther) {
  ServerProcess leaping("LeapingServer");
  const std::string echo = RawFrame(RawRequest(1), kEchoID, 1);
  std::vector<RawPeer> torn;
  for (const size_t size : {size_t{1}, size_t{31}, size_t{32}, echo.size() - 1}) {
    torn.emplace_back(leaping.PortName());
    ASSERT_TRUE(torn.back().Write(echo.substr(0, size)));
  }
  RawPeer idle(leaping.PortName());
  ASSERT_TRUE(idle.Ask(echo));
  RawPeer holding(leaping.PortName());
  ASSERT_TRUE(holding.Write(RawFrame(RawRequest(1), kHoldID, 1)));
  EXPECT_EQ("held", leaping.Hear(20s));
  RawPeer silent(leaping.PortName());
  const auto leap = [&leaping](const char* seconds) {
    ASSERT_TRUE(leaping.Tell(seconds));
    EXPECT_EQ("leapt", leaping.Hear(20s));
    Settle(leaping);
  };
  leap("20");
  for (RawPeer& peer : torn) EXPECT_FALSE(peer.WaitHungUp(0ms));
  leap("11");
  for (RawPeer& peer : torn) EXPECT_TRUE(peer.WaitHungUp());
  leap("100");
  EXPECT_TRUE(idle.Ask(echo));
  EXPECT_TRUE(silent.Ask(echo));
  EXPECT_FALSE(holding.WaitHungUp(0ms));
  holding = RawPeer(-1);
  idle = RawPeer(-1);
  silent = RawPeer(-1);
  leaping.ExpectUnchanged();
}

constexpr int kFewDescriptors = 32;

// Every connected client waits for a reply, and none has more than its share. A newcomer has to
// wait, the server must not spin, and the first descriptor that comes free is the newcomer's.
TEST(FewDescriptors, WithNobodyToGiveUpTheServerWaitsWithoutSpinning) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {std::to_string(kFewDescriptors)});
  const auto isFull = [&server] { return UseOf(server.Pid()).descriptors >= kFewDescriptors; };
  TestProcesses holders;
  while (!isFull() && holders.size() < kFewDescriptors) {
    holders.push_back(
        std::make_unique<TestProcess>("Holder", server.PortName(), std::vector<std::string>{"1"}));
    ASSERT_TRUE(holders.back()->WaitReady(20s));
    ASSERT_EQ("held", server.Hear(20s));
  }
  ASSERT_TRUE(isFull());
  RawPeer newcomer(server.PortName());
  ASSERT_TRUE(newcomer.Write(RawFrame(RawRequest(1), kEchoID, 5)));
  const int64_t used = UseOf(server.Pid()).processorTime, began = HostNow();
  EXPECT_EQ(std::nullopt, newcomer.ReadFrame(1s));
  EXPECT_LT(UseOf(server.Pid()).processorTime - used, (HostNow() - began) / 4);
  ASSERT_TRUE(holders.back()->KillAndWait(20s));
  EXPECT_TRUE(newcomer.ReadFrame());
  EXPECT_TRUE(newcomer.Ask(RawFrame(RawRequest(2), kEchoID, 6)));
  newcomer = RawPeer(-1);
  holders.clear();
  server.ExpectUnchanged();
}

TEST(FewDescriptors, AreTakenFromTheConnectionThatHasBeenSilentLongest) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {std::to_string(kFewDescriptors)});
  const std::string echo = RawFrame(RawRequest(1), kEchoID, 1);
  {
    std::vector<RawPeer> peers;
    const size_t room = kFewDescriptors - server.before.descriptors;
    for (size_t i = 0; i < room; i++) {
      peers.emplace_back(server.PortName());
      ASSERT_TRUE(peers.back().Ask(echo));
    }
    ASSERT_TRUE(peers[0].Ask(echo));  // peers[1] is the one that has been silent longest now
    std::vector<RawPeer> more;
    for (size_t i = 1; i <= 5; i++) {
      EXPECT_FALSE(peers[i].WaitHungUp(0ms)) << i;
      more.emplace_back(server.PortName());
      ASSERT_TRUE(more.back().Ask(echo));
      EXPECT_TRUE(peers[i].WaitHungUp()) << i;
    }
    ASSERT_TRUE(peers[0].Ask(echo));
    for (size_t i = 6; i < room; i++) ASSERT_TRUE(peers[i].Ask(echo)) << i;
  }
  server.ExpectUnchanged();
}

// There are more client threads than the server has descriptors. It gives up their connections
// again and again, and no request fails.
TEST(FewDescriptors, LeaveNoRequestOfAnIdleClientUnserved) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {std::to_string(kFewDescriptors)});
  TestProcesses clients = StartProcesses(2 * kFewDescriptors, "TurnClient", server.PortName());
  ExpectReady(clients);
  for (int round = 0; round < 3; round++) {
    for (auto& client : clients) {
      ASSERT_TRUE(client->Tell("ask"));
      ASSERT_EQ("0", client->Hear(20s));
    }
  }
  for (auto& client : clients) client->Tell("end");
  ExpectDone(clients);
  server.ExpectUnchanged();
}

TEST_ROLE(TurnClient) {
  mach_port_t port = MACH_PORT_NULL;
  if (LookUpPort(role.PortName(), &port) != 0) return RoleFailed();
  role.SignalReady();
  while (role.Hear(120s) == "ask") role.Tell(std::to_string(AskPort(port, kEchoID).status));
  return kRoleDone;
}

// Changes the user that owns new sockets; files stay as accessible to this process as to root.
bool BecomeUser(uid_t user) {
  if (seteuid(user) != 0) return false;
  setfsuid(0);
  return true;
}

TEST_ROLE(ServerOfUser) {
  if (seteuid(static_cast<uid_t>(role.NumberArgument(0))) != 0) return RoleFailed();
  FaultListener listener(&role);
  return listener.ServeForEver();
}

// Looks the port up as its owner's user and sends the request as another user.
TEST_ROLE(ClientOfUser) {
  if (seteuid(static_cast<uid_t>(role.NumberArgument(0))) != 0) return RoleFailed();
  mach_port_t port = MACH_PORT_NULL;
  if (LookUpPort(role.PortName(), &port) != 0 || seteuid(0) != 0) return RoleFailed();
  if (!BecomeUser(static_cast<uid_t>(role.NumberArgument(1)))) return RoleFailed();
  role.Tell(std::to_string(AskPort(port, kEchoID).status));
  // A sanitizer's leak check traces this process, which only its owner may do.
  return seteuid(getuid()) == 0 ? kRoleDone : RoleFailed();
}

TEST(OtherUsers, AreRefusedUnlessTheyAreRoot) {
  SKIP_IF(NoOtherUsers());
  constexpr uid_t kSomebody = 12345, kOther = 54321;
  const struct {
    uid_t server, client;
    OSStatus err;
  } rows[] = {
      {0, 0, 0},         {0, kSomebody, connectionInvalid},      {kSomebody, kSomebody, 0},
      {kSomebody, 0, 0}, {kSomebody, kOther, connectionInvalid},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(std::pair(row.server, row.client)));
    const ScratchFolder folder;
    ASSERT_EQ(0, chown(folder.Path().c_str(), row.server, row.server));
    const ScopedVariable session("XDG_RUNTIME_DIR", folder.Path().c_str());
    ReadyProcess server("ServerOfUser", {std::to_string(row.server)});
    TestProcess client("ClientOfUser", server.PortName(),
                       {std::to_string(row.server), std::to_string(row.client)});
    EXPECT_EQ(std::to_string(row.err), client.Hear(20s));
    EXPECT_EQ(kRoleDone, client.Wait(20s));
    EXPECT_EQ(std::nullopt, server.Wait(0ms));
  }
}

}  // namespace
