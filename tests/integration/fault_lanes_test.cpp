#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <sstream>

#include "platform/host/base/clock.h"
#include "platform/host/ports/introspect.h"
#include "platform/host/ports/lane.h"
#include "platform/host/session/name_registry.h"
#include "tests/integration/raw_peer.h"

// Lanes between processes: when they begin, which offers are accepted, and how both ends go on when
// one of them dies, stops, forks or lacks the means for a lane. The other fault tests run with
// lanes, too (see tests_faults.cmake).

namespace {

using Lanes = FaultTest;

constexpr int kBeforeLane = 16;  // requests
constexpr size_t kLarge = size_t{1} << 20;
constexpr SInt32 kShortTicks = 18;
constexpr size_t kLanesOfAReceiver = 64;

// Returns the server's own count of its lanes, by a request of this thread.
size_t LanesOf(mach_port_t port) {
  size_t counts[5] = {};
  const std::string data = AskPort(port, kSelfID).data;
  EXPECT_EQ(sizeof counts, data.size());
  std::memcpy(counts, data.data(), std::min(sizeof counts, data.size()));
  return counts[4];
}

mach_port_t PortOf(const char* name) {
  mach_port_t port = MACH_PORT_NULL;
  EXPECT_EQ(0, LookUpPort(name, &port));
  return port;
}

// Sends so many requests on this thread's connection that the last one uses a lane.
void WarmUp(mach_port_t port) {
  for (int i = 0; i < kBeforeLane + 3; i++) ASSERT_EQ(i, AskPort(port, kEchoID, i).number);
}

// A client process. It warms up, reports that it is ready, and then obeys its test's lines, "ask ID
// NUMBER SIZE TICKS" or "send NUMBER TICKS", and reports the status and the number.
TEST_ROLE(LaneClient) {
  const mach_port_t port = PortOf(role.PortName());
  for (int i = 0; i < role.NumberArgument(0); i++) {
    if (AskPort(port, kEchoID, i).number != i) return RoleFailed();
  }
  role.SignalReady();
  while (const auto line = role.Hear(120s)) {
    std::istringstream words(*line);
    std::string verb;
    UInt32 eventID = 0;
    SInt32 number = 0, ticks = 0;
    size_t size = 0;
    words >> verb;
    if (verb == "send") {
      words >> number >> ticks;
      role.Tell(std::to_string(SendOneWay(port, kMarkID, number, ticks)));
      continue;
    }
    words >> eventID >> number >> size >> ticks;
    const FaultAnswer answer = AskPort(port, eventID, number, PatternBytes(size), ticks);
    role.Tell(std::to_string(answer.status) + " " + std::to_string(answer.number));
  }
  return kRoleDone;
}

class LaneClient : public TestProcess {
 public:
  explicit LaneClient(const char* port, int warmUp = kBeforeLane + 3)
      : TestProcess("LaneClient", port, {std::to_string(warmUp)}) {
    EXPECT_TRUE(WaitReady(20s));
  }
  void Ask(UInt32 eventID, SInt32 number, size_t size = 0, SInt32 ticks = 20 * 60) {
    std::ostringstream line;
    line << "ask " << eventID << " " << number << " " << size << " " << ticks;
    Tell(line.str());
  }
  void Send(SInt32 number) { Tell("send " + std::to_string(number) + " 1200"); }
};

std::string Told(OSStatus status, SInt32 number) {
  return std::to_string(status) + " " + std::to_string(number);
}

TEST_F(Lanes, BeginAfterSixteenRequestsOrBeforeALargeOne) {
  RunOnThread([&] {
    const mach_port_t port = PortOf(server.PortName());
    for (int i = 0; i < kBeforeLane; i++) EXPECT_EQ(0u, LanesOf(port));
    LanesOf(port);  // comes after the offer
    EXPECT_EQ(1u, LanesOf(port));
    // The lane is visible from outside, too.
    uint64_t portID = 0;
    ASSERT_EQ(0, HostFindName(server.PortName(), &portID));
    const HostPortUse use = HostUseOfPort(server.Pid(), portID);
    EXPECT_EQ(1u, use.lanes);
    EXPECT_EQ(1u, use.connections);
    EXPECT_EQ(std::nullopt, HostUseOfPort(-1, portID).lanes);
  });
  RunOnThread([&] {
    const mach_port_t port = PortOf(server.PortName());
    const std::string large = PatternBytes(kLarge);
    EXPECT_TRUE(AskPort(port, kEchoID, 1, large).data == large);
    EXPECT_EQ(1u, LanesOf(port));
    EXPECT_TRUE(AskPort(port, kEchoID, 1, large).data == large);
  });
}

// Requests sent by the socket before the lane was used are served first, however late they are
// read.
TEST_F(Lanes, AreReadWhenTheSocketIsEmpty) {
  constexpr SInt32 kCount = 1000;  // more than one receive call takes
  RawPeer peer(server.PortName());
  ASSERT_TRUE(peer.TakeLane());
  server.Signal(SIGSTOP);
  WaitForState(server.Pid(), 'T');
  std::string bytes;
  for (SInt32 i = 0; i < kCount; i++) bytes += RawFrame(RawRequest(1), kMarkID, i);
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
            send(peer.Socket(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  ASSERT_TRUE(peer.Write(RawFrame(RawRequest(1), kMarkID, kCount)));
  server.Signal(SIGCONT);
  RunOnThread([&] {
    std::vector<SInt32> marks;
    const auto areAll = [&] {
      marks = AskServer(server.PortName(), kTellID).Marks();
      return marks.size() == static_cast<size_t>(kCount) + 1;
    };
    EXPECT_TRUE(WaitUntil(areAll, 20s));
    EXPECT_TRUE(std::is_sorted(marks.begin(), marks.end()));
  });
}

TEST_F(Lanes, AreDeclinedBeyondSixtyFourAndServiceGoesOn) {
  std::vector<RawPeer> peers;
  size_t accepted = 0;
  for (size_t i = 0; i < kLanesOfAReceiver + 4; i++) {
    peers.emplace_back(server.PortName());
    if (peers.back().TakeLane()) accepted++;
  }
  EXPECT_EQ(kLanesOfAReceiver, accepted);
  for (RawPeer& peer : peers) EXPECT_TRUE(peer.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
  RunOnThread([&] { WarmUp(PortOf(server.PortName())); });
}

// Lanes take a quarter of the descriptors at most, on either side.
TEST(FewDescriptors, AreNotUsedUpByLanes) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {"64"});
  for (int round = 0; round < 2; round++) {
    {
      std::vector<RawPeer> peers;
      size_t accepted = 0;
      for (int i = 0; i < 20; i++) {
        peers.emplace_back(server.PortName());
        if (peers.back().TakeLane()) accepted++;
      }
      EXPECT_EQ(16u, accepted);
      RunOnThread([&] { WarmUp(PortOf(server.PortName())); });
    }
    server.ExpectUnchanged();
  }
}

// An idle lane's file descriptors go to a newcomer. Its client notices nothing.
TEST(FewDescriptors, OfAnIdleLaneAreGivenUpAndItsClientComesBack) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {"32"});
  LaneClient client(server.PortName());
  for (SInt32 round = 0; round < 3; round++) {
    {
      std::vector<RawPeer> silent;
      for (int i = 0; i < 40; i++) {
        silent.emplace_back(server.PortName());
        silent.back().Ask(RawFrame(RawRequest(1), kEchoID, 1));
      }
    }
    client.Send(round);
    EXPECT_EQ("0", client.Hear(20s));
    client.Ask(kTellID, round);
    EXPECT_EQ(Told(0, round), client.Hear(20s));
    for (int i = 0; i < kBeforeLane + 3; i++) {
      client.Ask(kEchoID, i);
      EXPECT_EQ(Told(0, i), client.Hear(20s));
    }
  }
  RunOnThread([&] {
    EXPECT_EQ((std::vector<SInt32>{0, 1, 2}), AskServer(server.PortName(), kTellID).Marks());
  });
  ASSERT_TRUE(client.KillAndWait(20s));
  server.ExpectUnchanged();
}

// A client that writes at that moment has to learn that nobody reads.
TEST(FewDescriptors, OfAnIdleLaneAreGivenUpWithAWord) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("NarrowFaultServer", {"32"});
  {
    RawPeer idle(server.PortName());
    ASSERT_TRUE(idle.TakeLane());
    std::vector<RawPeer> others;
    while (others.size() < 40 && !idle.WaitHungUp(0ms)) {
      others.emplace_back(server.PortName());
      others.back().Ask(RawFrame(RawRequest(1), kEchoID, 1));
    }
    EXPECT_EQ(1u, HostServerGoesWord(idle.Lane().Memory())->Load());
  }
  server.ExpectUnchanged();
}

int MemoryFile(size_t size, int seals) {
  const int fd = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
  EXPECT_EQ(0, fcntl(fd, F_ADD_SEALS, seals));
  return fd;
}

TEST_F(Lanes, ThatAreOfferedInAWrongWayEndTheConnection) {
  constexpr int kShape = F_SEAL_SHRINK | F_SEAL_GROW;
  // Each replaces one file of an offer that is otherwise right.
  const auto file = [](int made) {
    return [made](RawOffer& offer) {
      char lane[kHostLaneControlSize] = {};
      EXPECT_EQ(ssize_t{sizeof lane}, pread(offer.file, lane, sizeof lane, 0));
      (void)!pwrite(made, lane, sizeof lane, 0);
      dup3(made, offer.file, O_CLOEXEC);
      close(made);
    };
  };
  const auto bell = [](int made, int flags = O_NONBLOCK) {
    return [made, flags](RawOffer& offer) {
      EXPECT_EQ(0, fcntl(made, F_SETFL, flags));
      dup3(made, offer.bell, O_CLOEXEC);
      close(made);
    };
  };
  const auto none = [](RawOffer&) {};
  const std::tuple<const char*, std::function<void(RawOffer&)>, size_t> rows[] = {
      {"no descriptor", none, 0},
      {"one descriptor", none, 1},
      {"three descriptors", none, 3},
      {"a file without seals", file(MemoryFile(kHostLaneSize, 0)), 2},
      {"a file that may shrink", file(MemoryFile(kHostLaneSize, F_SEAL_GROW)), 2},
      {"a file that nobody may write to", file(MemoryFile(kHostLaneSize, kShape | F_SEAL_WRITE)),
       2},
      {"a file that is too small", file(MemoryFile(kHostLaneSize - 1, kShape)), 2},
      {"a file that is too large", file(MemoryFile(kHostLaneSize + 4096, kShape)), 2},
      {"a file without a lane in it",
       [](RawOffer& offer) { EXPECT_EQ(1, pwrite(offer.file, "x", 1, 0)); }, 2},
      {"a folder", file(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), 2},
      {"an eventfd as the file", file(eventfd(0, EFD_CLOEXEC)), 2},
      {"a file as the bell", bell(MemoryFile(kHostLaneSize, kShape)), 2},
      {"a device as the bell", bell(open("/dev/null", O_RDWR | O_CLOEXEC)), 2},
      {"a bell that blocks", bell(eventfd(0, EFD_CLOEXEC), 0), 2},
  };
  for (const auto& [what, spoil, count] : rows) {
    SCOPED_TRACE(what);
    RawPeer peer(server.PortName());
    RawOffer offer = RawOffer::Make();
    spoil(offer);
    offer.SendOn(peer.Socket(), count);  // the server may be quicker
    EXPECT_TRUE(peer.WaitHungUp());
  }
  {
    SCOPED_TRACE("a second offer");
    RawPeer peer(server.PortName());
    ASSERT_TRUE(peer.TakeLane());
    RawOffer::Make().SendOn(peer.Socket());
    EXPECT_TRUE(peer.WaitHungUp());
  }
  {
    SCOPED_TRACE("descriptors with a request");
    RawPeer peer(server.PortName());
    const RawOffer offer = RawOffer::Make();
    EXPECT_TRUE(peer.WriteWithDescriptor(RawFrame(RawRequest(1), kEchoID, 1), offer.file));
    EXPECT_TRUE(peer.WaitHungUp());
  }
  RunOnThread([&] { WarmUp(PortOf(server.PortName())); });
}

TEST_F(Lanes, WithImpossiblePositionsEndTheConnectionAndNoOther) {
  for (size_t at = 0; at < kHostLaneControlSize; at += 4) {
    RawPeer peer(server.PortName());
    ASSERT_TRUE(peer.TakeLane());
    auto* const words = static_cast<uint8_t*>(peer.Lane().Memory());
    ASSERT_TRUE(peer.Write(RawFrame(RawRequest(1), kEchoID, 1)));
    std::memset(words + at, 0x5A, 4);
    peer.Lane().Ring();
    at += at % 128 == 0 ? 0 : 124 - at % 128;  // the words are at the beginning of a line
  }
  RawPeer peer(server.PortName());
  ASSERT_TRUE(peer.TakeLane());
  std::memset(peer.Lane().Memory(), 0xFF, kHostLaneControlSize);
  peer.Lane().Ring();
  EXPECT_TRUE(peer.WaitHungUp());
  RunOnThread([&] { WarmUp(PortOf(server.PortName())); });
}

// All clients of a server ring the same bell.
TEST_F(Lanes, WakeTheServerAlsoWhenAPeerHasFilledItsDoorbell) {
  RawPeer peer(server.PortName());
  ASSERT_TRUE(peer.TakeLane());
  LaneClient client(server.PortName());
  ASSERT_TRUE(peer.Lane().FillDoorbell());
  for (int i = 0; i < 3; i++) {  // the filling itself wakes the server once
    client.Ask(kEchoID, i, 0, 5 * 60);
    EXPECT_EQ(Told(0, i), client.Hear(20s));
  }
}

TEST_F(Lanes, WithBytesOnTheSocketEndTheConnection) {
  RawPeer peer(server.PortName());
  ASSERT_TRUE(peer.TakeLane());
  ASSERT_TRUE(peer.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
  EXPECT_EQ(1, write(peer.Socket(), "x", 1));
  EXPECT_TRUE(peer.WaitHungUp());
}

// The client checks the acceptance as well, and goes on by socket.
TEST(FalseAcceptance, LeavesTheClientOnTheSocket) {
  OpenDescriptorCheck noLeaks;
  constexpr int kShape = F_SEAL_SHRINK | F_SEAL_GROW;
  const std::tuple<const char*, int, int> rows[] = {
      {"a bell that is a device", open("/dev/null", O_RDWR | O_CLOEXEC),
       MemoryFile(kHostStatusPageSize, kShape)},
      {"a page that may shrink", eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK),
       MemoryFile(kHostStatusPageSize, 0)},
      {"a page that is too small", eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK),
       MemoryFile(kHostStatusPageSize / 2, kShape)},
  };
  for (const auto& [what, bell, page] : rows) {
    SCOPED_TRACE(what);
    RawPort port;
    TestProcess client("LaneClient", port.Name(), {"20"});
    RawPeer peer = port.Accept();
    HostFrameHeader header;
    header.kind = HostFrameKind::kLaneAccepted;
    for (SInt32 i = 0; i < 20; i++) {
      const auto request = peer.ReadFrame();
      ASSERT_TRUE(request.has_value());
      if (i == kBeforeLane) {
        EXPECT_EQ(0, HostSendPassing(peer.Socket(), header, bell, page));
      }
      peer.Reply(request->header.requestNumber, i);
    }
    EXPECT_TRUE(client.WaitReady(20s));
    ASSERT_TRUE(client.KillAndWait(20s));
    close(bell);
    close(page);
  }
}

// The server hangs up without having taken the request, which is complete in the lane.
TEST(LaneServers, ThatTookNothingGetTheRequestAgain) {
  OpenDescriptorCheck noLeaks;
  const int bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  const int page = MemoryFile(kHostStatusPageSize, F_SEAL_SHRINK | F_SEAL_GROW);
  ASSERT_EQ(4, pwrite(page, "\0\0\0\1", 4, 0));  // it sleeps, so the client rings
  RawPort port;
  TestProcess client("LaneClient", port.Name(), {"20"});
  RawPeer peer = port.Accept();
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneAccepted;
  SInt32 number = 0;
  const auto serve = [&] {
    const auto request = peer.ReadFrame();  // after the offer, if there was one
    if (number == kBeforeLane) HostSendPassing(peer.Socket(), header, bell, page);
    return request && peer.Reply(request->header.requestNumber, number++);
  };
  while (number <= kBeforeLane) ASSERT_TRUE(serve());
  pollfd entry = {bell, POLLIN, 0};
  ASSERT_EQ(1, poll(&entry, 1, 20000));
  peer = RawPeer(-1);
  peer = port.Accept();
  while (number < 20) ASSERT_TRUE(serve());
  EXPECT_TRUE(client.WaitReady(20s));
  ASSERT_TRUE(client.KillAndWait(20s));
  close(bell);
  close(page);
}

TEST_F(Lanes, OfClientsThatAreKilledLeaveNothingBehind) {
  const std::string frame = RawFrame(RawRequest(1), kMarkID, 1);
  {
    SCOPED_TRACE("between offer and acceptance");
    for (int i = 0; i < 20; i++) {
      RawPeer peer(server.PortName());
      RawOffer::Make().SendOn(peer.Socket());
    }
  }
  {
    SCOPED_TRACE("with whole frames and half of one in the ring");
    RawPeer peer(server.PortName());
    ASSERT_TRUE(peer.TakeLane());
    const std::string bytes = frame + RawFrame(RawRequest(2), kMarkID, 2) + frame.substr(0, 50);
    peer.Lane().WriteUnrung(bytes.data(), bytes.size());
  }
  {
    SCOPED_TRACE("in the middle of a large frame, and asleep");
    LaneClient writing(server.PortName()), waiting(server.PortName());
    waiting.Ask(kHoldID, 1, 0, kNoTimeOut);
    ASSERT_EQ("held", server.Hear(20s));
    server.Signal(SIGSTOP);
    WaitForState(server.Pid(), 'T');
    writing.Ask(kMarkID, 3, kLarge, kNoTimeOut);
    WaitForState(writing.Pid(), 'S');
    ASSERT_TRUE(writing.KillAndWait(20s));
    ASSERT_TRUE(waiting.KillAndWait(20s));
    server.Signal(SIGCONT);
  }
  RunOnThread([&] {
    EXPECT_EQ((std::vector<SInt32>{1, 2}), AskServer(server.PortName(), kTellID).Marks());
  });
}

TEST(LaneServers, ThatAreKilledEndWhatTheirClientsWaitFor) {
  OpenDescriptorCheck noLeaks;
  const std::tuple<const char*, std::function<void(LaneClient&, TestProcess&)>, std::string>
      rows[] = {{"while a client waits for its reply",
                 [](LaneClient& client, TestProcess& server) {
                   client.Ask(kHoldID, 1, 0, kNoTimeOut);
                   EXPECT_EQ("held", server.Hear(20s));
                 },
                 Told(connectionInvalid, -1)},
                {"while a client waits for room",
                 [](LaneClient& client, TestProcess& server) {
                   server.Signal(SIGSTOP);
                   WaitForState(server.Pid(), 'T');
                   client.Ask(kEchoID, 1, kLarge, kNoTimeOut);
                   WaitForState(client.Pid(), 'S');
                 },
                 Told(connectionInvalid, -1)},
                {"before the next event", [](LaneClient&, TestProcess&) {}, ""}};
  for (const auto& [what, begin, told] : rows) {
    SCOPED_TRACE(what);
    ReadyProcess server("FaultServer");
    LaneClient client(server.PortName());
    begin(client, server);
    ASSERT_TRUE(server.KillAndWait(20s));
    if (told.empty()) {
      client.Send(1);
      EXPECT_EQ(std::to_string(connectionInvalid), client.Hear(20s));
    } else {
      EXPECT_EQ(told, client.Hear(20s));
    }
    client.Ask(kEchoID, 1);
    EXPECT_EQ(Told(connectionInvalid, -1), client.Hear(20s));
    ASSERT_TRUE(client.KillAndWait(20s));
  }
}

// The server stops reading, and the time runs out in the middle of a frame.
TEST_F(Lanes, FinishAFrameWhoseTimeRanOutBeforeTheNext) {
  LaneClient client(server.PortName());
  server.Signal(SIGSTOP);
  WaitForState(server.Pid(), 'T');
  for (SInt32 i = 1; i <= 2; i++) {
    client.Ask(kMarkID, i, kLarge, kShortTicks);
    EXPECT_EQ(Told(errAETimeout, -1), client.Hear(20s));
  }
  server.Signal(SIGCONT);
  client.Ask(kMarkID, 3);
  EXPECT_EQ(Told(0, 3), client.Hear(20s));
  // Nothing was sent of the second request.
  RunOnThread([&] {
    EXPECT_EQ((std::vector<SInt32>{1, 3}), AskServer(server.PortName(), kTellID).Marks());
  });
  ASSERT_TRUE(client.KillAndWait(20s));
}

TEST_ROLE(ForkingClient) {
  const mach_port_t port = PortOf(role.PortName());
  WarmUp(port);
  const pid_t child = fork();
  if (child < 0) return RoleFailed();
  if (child == 0) {
    std::ifstream maps("/proc/self/maps");
    const std::string all((std::istreambuf_iterator<char>(maps)), {});
    const bool isClean = all.find("veltrane-lane") == std::string::npos;
    const FaultAnswer answer = AskServer(role.PortName(), kEchoID, 5);
    _exit(isClean && answer.number == 5 ? kRoleDone : kRoleFailed);
  }
  int status = -1;
  if (waitpid(child, &status, 0) != child || status != 0) return RoleFailed();
  WarmUp(port);
  return LanesOf(port) == 1 ? kRoleDone : RoleFailed();
}

TEST_F(Lanes, StayWithTheParentOfAForkedChild) {
  TestProcess client("ForkingClient", server.PortName(), {});
  EXPECT_EQ(kRoleDone, client.Wait(20s));
}

// From now on this process gets EPERM for the system call.
bool Refuse(int call) {
  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {static_cast<unsigned short>(std::size(steps)), steps};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_ROLE(RefusedClient) {
  const mach_port_t port = PortOf(role.PortName());
  if (!Refuse(role.NumberArgument(0))) return RoleFailed();
  const std::string large = PatternBytes(kLarge);
  for (int i = 0; i < 100; i++) {
    if (AskPort(port, kEchoID, i).number != i) return RoleFailed();
    if (AskPort(port, kEchoID, i, large).data != large) return RoleFailed();
  }
  return LanesOf(port) == 0 ? kRoleDone : RoleFailed();
}

TEST_ROLE(RefusedServer) {
  FaultListener listener(&role);
  if (listener.Listen() != 0 || !Refuse(role.NumberArgument(0))) return RoleFailed();
  role.SignalReady();
  CFRunLoopRun();
  return RoleFailed();
}

TEST_F(Lanes, AreNotNeededWhereTheirCallsAreRefused) {
  for (const int call : {SYS_memfd_create, SYS_eventfd2}) {
    SCOPED_TRACE(call);
    const std::vector<std::string> argument = {std::to_string(call)};
    TestProcess client("RefusedClient", server.PortName(), argument);
    EXPECT_EQ(kRoleDone, client.Wait(60s));
    ServerProcess refused("RefusedServer", argument);
    RunOnThread([&] {
      const mach_port_t port = PortOf(refused.PortName());
      WarmUp(port);
      EXPECT_EQ(0u, LanesOf(port));
    });
    refused.ExpectUnchanged();
  }
}

// A server without requests makes no system call, also when it has lanes.
TEST_F(Lanes, ThatAreIdleWakeNobody) {
  RunOnThread([&] {
    WarmUp(PortOf(server.PortName()));
    WaitForState(server.Pid(), 'S');
    const int64_t used = UseOf(server.Pid()).processorTime;
    SleepUntil(HostNow() + kHostSecond / 2);
    EXPECT_EQ(used, UseOf(server.Pid()).processorTime);
  });
}

TEST(BriefWait, EndsAndIsLeftOutMoreOftenTheMoreItWasInVain) {
  HostBriefWait wait;
  int looks = 0;
  const auto isReady = [&looks] { return ++looks, false; };
  for (int leftOut : {0, 1, 3, 7}) {
    for (looks = 0; leftOut > 0; leftOut--) EXPECT_FALSE(wait.Wait(isReady));
    EXPECT_EQ(0, looks);
    EXPECT_FALSE(wait.Wait(isReady));
    EXPECT_LT(0, looks);
  }
  const auto isReadyAtOnce = [] { return true; };
  for (int leftOut : {15, 3, 0}) {  // each success makes waits more frequent again
    for (; leftOut > 0; leftOut--) EXPECT_FALSE(wait.Wait(isReadyAtOnce));
    EXPECT_TRUE(wait.Wait(isReadyAtOnce));
  }
}

}  // namespace
