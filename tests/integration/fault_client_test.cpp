#include <poll.h>
#include <signal.h>

#include <servers/bootstrap.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/ports/introspect.h"
#include "tests/integration/raw_peer.h"

// What servers and signals can do to a client. The test is the server, byte by byte; the client is
// another process that sends with the library.

namespace {

constexpr size_t kLarge = size_t{4} << 20;  // more than a socket's buffers take
constexpr SInt32 kShortTicks = 18;          // 0.3 s

// Reads one request and answers it with its number.
void Serve(RawPeer& peer, SInt32 number) {
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request.has_value());
  peer.Reply(request->header.requestNumber, number);
}

TestRole* sSignalledRole = nullptr;

// Does what the test says, a line each:
//   ask NAME NUMBER SIZE TICKS   sends a request with so many bytes; tells status, number, ms
//   rights                       tells how many port rights it has
// After a SIGUSR1, which interrupts every system call that waits, it tells "!".
TEST_ROLE(Client) {
  sSignalledRole = &role;
  struct sigaction action = {};
  action.sa_handler = [](int) { sSignalledRole->Tell("!"); };  // too short to need memory
  sigaction(SIGUSR1, &action, nullptr);
  signal(SIGPIPE, SIG_DFL);  // test programs ignore it; who uses the library need not
  role.SignalReady();
  while (const auto line = role.Hear(60s)) {
    std::istringstream words(*line);
    std::string verb, name;
    SInt32 number = 0, ticks = 0;
    size_t size = 0;
    words >> verb >> name >> number >> size >> ticks;
    if (verb == "rights") {
      role.Tell(std::to_string(HostCountPorts().portNames));
    } else {
      const FaultAnswer answer =
          AskServer(name.c_str(), kEchoID, number, PatternBytes(size), ticks);
      role.Tell(std::to_string(answer.status) + " " + std::to_string(answer.number) + " " +
                std::to_string(answer.elapsed / kHostMillisecond));
    }
  }
  return kRoleDone;
}

class ClientFaults : public testing::Test {
 protected:
  struct Result {
    OSStatus status = 1;  // nothing was told
    SInt32 number = 0;
    int64_t elapsedMs = 0;
  };

  void SetUp() override { StartClient(); }
  void StartClient() {
    client = std::make_unique<TestProcess>("Client");
    ASSERT_TRUE(client->WaitReady(20s));
  }

  void Ask(const RawPort& port, SInt32 number, size_t size = 0, SInt32 ticks = 20 * 60) {
    std::ostringstream line;
    line << "ask " << port.Name() << ' ' << number << ' ' << size << ' ' << ticks;
    ASSERT_TRUE(client->Tell(line.str()));
  }
  static Result Parse(const std::string& line) {
    Result result;
    std::istringstream(line) >> result.status >> result.number >> result.elapsedMs;
    return result;
  }
  Result Told() { return Parse(client->Hear(20s).value_or("")); }
  size_t Rights() {
    client->Tell("rights");
    return std::stoul(client->Hear(20s).value_or("0"));
  }
  // Asks and serves one request whose connection exists already.
  void Exchange(const RawPort& port, RawPeer& peer, SInt32 number) {
    Ask(port, number);
    Serve(peer, number);
    const Result result = Told();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(number, result.number);
  }
  RawPeer Connect(RawPort& port, SInt32 number) {
    Ask(port, number);
    RawPeer peer = port.Accept();
    Serve(peer, number);
    EXPECT_EQ(0, Told().status);
    return peer;
  }
  bool WaitAsleep() {
    return WaitUntil([this] { return ProcessStateOf(client->Pid()) == 'S'; }, 20s);
  }
  // Interrupts a wait; empty when the handler has run, else what the client told instead.
  std::string Interrupt() {
    EXPECT_TRUE(WaitAsleep());
    client->Signal(SIGUSR1);
    std::string line = client->Hear(20s).value_or("nothing");
    return line == "!" ? "" : line;
  }

  OpenDescriptorCheck noLeaks;
  std::unique_ptr<TestProcess> client;
};

enum class Wait { kConnect, kSend, kReceive };
constexpr Wait kWaits[] = {Wait::kConnect, Wait::kSend, Wait::kReceive};

// A port at which a request with kLarge bytes waits in the way that is asked for.
struct Obstacle {
  explicit Obstacle(Wait way) : port(way == Wait::kConnect ? 0 : 64) {
    if (way == Wait::kConnect) filler = std::make_unique<RawPeer>(port.Name());
  }
  size_t Size(Wait way) const { return way == Wait::kSend ? kLarge : 0; }

  RawPort port;
  std::unique_ptr<RawPeer> filler;  // takes the only place in the queue of connections
};

TEST_F(ClientFaults, SignalsInterruptNoRequest) {
  for (const Wait way : kWaits) {
    SCOPED_TRACE(static_cast<int>(way));
    Obstacle at(way);
    Ask(at.port, 7, at.Size(way));
    if (way == Wait::kReceive) {
      RawPeer peer = at.port.Accept();
      const auto request = peer.ReadFrame();
      for (int i = 0; i < 5; i++) ASSERT_EQ("", Interrupt());
      peer.Reply(request->header.requestNumber, 7);
      EXPECT_EQ(0, Told().status);
      continue;
    }
    for (int i = 0; i < 5; i++) ASSERT_EQ("", Interrupt());
    if (way == Wait::kConnect) at.port.Accept();
    RawPeer peer = at.port.Accept();
    Serve(peer, 7);
    EXPECT_EQ(0, Told().status);
    EXPECT_FALSE(at.port.HasCaller());  // one connection did
  }
}

TEST_F(ClientFaults, ATimeOutHoldsWithAndWithoutSignals) {
  for (const Wait way : kWaits) {
    for (const bool hasSignals : {false, true}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(way) << hasSignals);
      Obstacle at(way);
      Ask(at.port, 7, at.Size(way), kShortTicks);
      std::string line;
      while (hasSignals && line.empty()) line = Interrupt();
      const Result result = hasSignals ? Parse(line) : Told();
      if (hasSignals) {
        EXPECT_EQ("!", client->Hear(20s));  // of the last signal
      }
      EXPECT_EQ(errAETimeout, result.status);
      EXPECT_GE(result.elapsedMs, 299);
    }
  }
}

// Bytes without end, whether the client waits for room or for its reply.
TEST_F(ClientFaults, ATimeOutHoldsWhateverTheServerSends) {
  std::string small;
  while (small.size() < size_t{1} << 18) small += RawFrame(RawReply(4711), kAEAnswer, 1);
  const std::tuple<const char*, std::string> rows[] = {
      {"small foreign replies", small},
      {"large foreign replies", RawFrame(RawReply(4711), kAEAnswer, 1, PatternBytes(kLarge))},
      {"large requests", RawFrame(RawRequest(4711), kAEAnswer, 1, PatternBytes(kLarge))},
  };
  for (const auto& [what, bytes] : rows) {
    for (const bool reads : {true, false}) {
      SCOPED_TRACE(std::string(what) + (reads ? ", reads" : ", does not read"));
      RawPort port;
      Ask(port, 1, reads ? 0 : kLarge, kShortTicks);
      RawPeer peer = port.Accept();
      if (reads) peer.ReadFrame();
      std::atomic<bool> ends = false;
      // In parts, so that the client is never without something to read, nor with a whole frame.
      std::thread flood([&] {
        const size_t part = std::min<size_t>(bytes.size(), size_t{1} << 18);
        for (size_t at = 0; !ends; at = at + part < bytes.size() ? at + part : 0) {
          if (!peer.Write(bytes.substr(at, part))) break;
        }
      });
      const Result result = Told();
      ends = true;
      EXPECT_EQ(errAETimeout, result.status);
      EXPECT_GE(result.elapsedMs, 299);
      client.reset();  // the writer's other end is gone
      flood.join();
      StartClient();
    }
  }
}

// The time runs out in the middle of a frame, with and without an answer that comes too late.
TEST_F(ClientFaults, AFrameThatWasBegunIsFinishedBeforeTheNext) {
  const std::string data = PatternBytes(kLarge);
  for (const bool isAnswered : {false, true}) {
    SCOPED_TRACE(isAnswered);
    RawPort port;
    Ask(port, 1, kLarge, kShortTicks);
    EXPECT_EQ(errAETimeout, Told().status);
    RawPeer peer = port.Accept();
    // Another waits for room behind the first, in vain: none of it is sent.
    Ask(port, 2, kLarge, kShortTicks);
    EXPECT_EQ(errAETimeout, Told().status);
    Ask(port, 3);
    const auto first = peer.ReadFrame();
    ASSERT_TRUE(first.has_value());
    EXPECT_TRUE(first->body.ends_with(data));
    if (isAnswered) peer.Reply(first->header.requestNumber, 1);
    Serve(peer, 3);
    const Result result = Told();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(3, result.number);
    EXPECT_FALSE(port.HasCaller());
  }
}

// Each server has answered one request on its connection; the second one it meets in its own way.
TEST_F(ClientFaults, ARequestIsSentAgainOnceUnlessItWasReceivedWhole) {
  const auto hangUp = [](RawPeer& peer) { peer = RawPeer(-1); };
  std::unique_ptr<RawPeer> again;
  const std::tuple<const char*, OSStatus, std::function<void(RawPort&, RawPeer&)>> rows[] = {
      {"gave up the idle connection", 0,
       [&](RawPort& port, RawPeer& peer) {
         hangUp(peer);
         Ask(port, 2);
         RawPeer next = port.Accept();
         Serve(next, 2);
       }},
      {"ends in the middle of the frame", 0,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 2, kLarge);
         EXPECT_TRUE(WaitAsleep());
         hangUp(peer);
         RawPeer next = port.Accept();
         Serve(next, 2);
       }},
      {"ends in the middle of a frame whose time is up", 0,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 1, kLarge, kShortTicks);
         EXPECT_EQ(errAETimeout, Told().status);
         hangUp(peer);
         Ask(port, 2);
         RawPeer next = port.Accept();
         Serve(next, 2);  // nothing of the frame before
       }},
      {"ends, then does not answer in time", errAETimeout,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 1, 0, kShortTicks);
         Serve(peer, 1);
         EXPECT_EQ(0, Told().status);
         hangUp(peer);
         Ask(port, 2, 0, kShortTicks);
         again = std::make_unique<RawPeer>(port.Accept());
         EXPECT_TRUE(again->ReadFrame().has_value());
       }},
      {"ends twice in the middle of the frame", connectionInvalid,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 2, kLarge);
         EXPECT_TRUE(WaitAsleep());
         hangUp(peer);
         RawPeer next = port.Accept();
         EXPECT_TRUE(WaitAsleep());
       }},
      {"ends with the whole frame", connectionInvalid,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 2);
         EXPECT_TRUE(peer.ReadFrame().has_value());
         hangUp(peer);
       }},
      {"sends what is no frame", errAECorruptData,
       [&](RawPort& port, RawPeer& peer) {
         Ask(port, 2);
         EXPECT_TRUE(peer.ReadFrame().has_value());
         peer.Write(std::string(64, 'x'));
         EXPECT_TRUE(peer.WaitHungUp());
       }},
      {"is gone", connectionInvalid,
       [&](RawPort& port, RawPeer& peer) {
         port.StopListening();
         hangUp(peer);
         Ask(port, 2);
       }},
  };
  const size_t rights = Rights();
  for (const auto& [what, status, meet] : rows) {
    SCOPED_TRACE(what);
    RawPort port;
    RawPeer peer = Connect(port, 1);
    meet(port, peer);
    const Result result = Told();
    EXPECT_EQ(status, result.status);
    if (status == 0) {
      EXPECT_EQ(2, result.number);
    }
    EXPECT_FALSE(port.HasCaller());
    again.reset();
    if (port.IsListening()) {
      Connect(port, 3);  // whatever happened, a new connection works
      port.StopListening();
      Ask(port, 4);
      EXPECT_EQ(connectionInvalid, Told().status);
    }
    EXPECT_EQ(rights, Rights());  // a dead port takes its right with it
  }
}

// The connections of a thread: at most eight; those that have hung up go first, then the one that
// was not used for longest, but none in the middle of a frame.
TEST_F(ClientFaults, TheLeastUsefulOfEightConnectionsIsClosed) {
  constexpr int kMost = 8;
  std::vector<std::unique_ptr<RawPort>> ports;
  std::vector<RawPeer> peers;
  const auto add = [&] {
    ports.push_back(std::make_unique<RawPort>());
    peers.push_back(Connect(*ports.back(), 1));
  };
  const auto expectOpen = [&](std::vector<size_t> closed) {
    for (size_t i = 0; i < peers.size(); i++) {
      const bool isClosed = std::find(closed.begin(), closed.end(), i) != closed.end();
      EXPECT_EQ(isClosed, peers[i].HasHungUp()) << i;
    }
  };
  for (int i = 0; i < kMost; i++) add();
  expectOpen({});

  Exchange(*ports[0], peers[0], 2);
  Ask(*ports[1], 3, kLarge, kShortTicks);  // cut short, and then the least recently used
  EXPECT_EQ(errAETimeout, Told().status);
  for (size_t i : {3, 0, 7, 6, 5, 4, 2}) Exchange(*ports[i], peers[i], 4);
  add();
  expectOpen({3});

  peers[5] = RawPeer(-1);  // hangs up
  add();                   // in the place of that one
  for (size_t i : {0, 2, 4, 6, 7, 8, 9}) Exchange(*ports[i], peers[i], 6);
  Ask(*ports[1], 7);
  ASSERT_TRUE(peers[1].ReadFrame().has_value());  // the frame that was begun
  Serve(peers[1], 7);
  EXPECT_EQ(7, Told().number);
}

// A server that counts its own port rights.

}  // namespace
