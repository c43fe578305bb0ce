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

// Servers and signals that disturb a client. The test is the server and reads and writes its bytes
// itself; the client is another process that sends with the library.

namespace {

constexpr size_t kLarge = size_t{4} << 20;  // more than a socket's buffers take
constexpr SInt32 kShortTicks = 18;          // 0.3 s

// Reads one request and replies with `number`.
void Serve(RawPeer& peer, SInt32 number) {
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request.has_value());
  peer.Reply(request->header.requestNumber, number);
}

TestRole* sSignalledRole = nullptr;

// Obeys the test's lines:
//   ask NAME NUMBER SIZE TICKS   sends a request with so many bytes; reports status, number, ms
//   rights                       reports how many port rights it has
// After a SIGUSR1, which interrupts every system call that waits, it reports "!".
TEST_ROLE(Client) {
  sSignalledRole = &role;
  struct sigaction action = {};
  action.sa_handler = [](int) { sSignalledRole->Tell("!"); };  // too short to need memory
  sigaction(SIGUSR1, &action, nullptr);
  signal(SIGPIPE, SIG_DFL);  // users of the library need not ignore it
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
    OSStatus status = 1;  // no report
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
  // Sends and serves one request on an existing connection.
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
  // Interrupts a wait. Returns "" if the handler has run, else the client's report.
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

// A port at which a client's request waits at one stage.
struct Obstacle {
  explicit Obstacle(Wait way) : port(way == Wait::kConnect ? 0 : 64) {
    if (way == Wait::kConnect) filler = std::make_unique<RawPeer>(port.Name());
  }
  size_t Size(Wait way) const { return way == Wait::kSend ? kLarge : 0; }

  RawPort port;
  std::unique_ptr<RawPeer> filler;  // fills the queue of connections
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

// The server never stops sending while the client waits for room or for its reply.
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

// The time runs out in the middle of a frame, with and without a reply that comes too late.
TEST_F(ClientFaults, AFrameThatWasBegunIsFinishedBeforeTheNext) {
  const std::string data = PatternBytes(kLarge);
  for (const bool isAnswered : {false, true}) {
    SCOPED_TRACE(isAnswered);
    RawPort port;
    Ask(port, 1, kLarge, kShortTicks);
    EXPECT_EQ(errAETimeout, Told().status);
    RawPeer peer = port.Accept();
    // The second request waits for room and times out: none of it is sent.
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

// Each server has served one request on its connection and then acts by its script; "ask" sends
// request 2.
TEST_F(ClientFaults, ARequestIsSentAgainOnceUnlessItWasReceivedWhole) {
  const std::tuple<const char*, OSStatus, const char*> rows[] = {
      {"gives up the idle connection", 0, "hang-up ask accept serve"},
      {"ends in the middle of the frame", 0, "ask-large sleeps hang-up accept serve"},
      {"ends in the middle of a frame whose time is up", 0,
       "ask-briefly-large times-out hang-up ask accept serve"},
      {"ends, then does not reply in time", errAETimeout,
       "ask-briefly serve succeeds hang-up ask-briefly accept read"},
      {"ends twice in the middle of the frame", connectionInvalid,
       "ask-large sleeps hang-up accept sleeps hang-up"},
      {"ends with the whole frame", connectionInvalid, "ask read hang-up"},
      {"sends bytes that are not a frame", errAECorruptData, "ask read babble"},
      {"is gone", connectionInvalid, "stop hang-up ask"},
  };
  const size_t rights = Rights();
  for (const auto& [what, status, script] : rows) {
    SCOPED_TRACE(what);
    RawPort port;
    RawPeer peer = Connect(port, 1);
    std::istringstream steps(script);
    for (std::string step; steps >> step;) {
      bool isDone = true;
      if (step == "ask") Ask(port, 2);
      if (step == "ask-large") Ask(port, 2, kLarge);
      if (step == "ask-briefly") Ask(port, 2, 0, kShortTicks);
      if (step == "ask-briefly-large") Ask(port, 1, kLarge, kShortTicks);
      if (step == "times-out") isDone = Told().status == errAETimeout;
      if (step == "succeeds") isDone = Told().status == 0;
      if (step == "sleeps") isDone = WaitAsleep();
      if (step == "accept") peer = port.Accept();
      if (step == "read") isDone = peer.ReadFrame().has_value();
      if (step == "serve") Serve(peer, 2);
      if (step == "hang-up") peer = RawPeer(-1);
      if (step == "babble") isDone = peer.Write(std::string(64, 'x')) && peer.WaitHungUp();
      if (step == "stop") port.StopListening();
      EXPECT_TRUE(isDone) << step;
    }
    const Result result = Told();
    EXPECT_EQ(status, result.status);
    EXPECT_TRUE(status != 0 || result.number == 2) << result.number;
    EXPECT_FALSE(port.HasCaller());
    peer = RawPeer(-1);
    if (port.IsListening()) {
      Connect(port, 3);  // whatever happened, a new connection works
      port.StopListening();
      Ask(port, 4);
      EXPECT_EQ(connectionInvalid, Told().status);
    }
    EXPECT_EQ(rights, Rights());  // a dead port takes its right with it
  }
}

// A thread keeps at most eight connections. Those that have hung up are closed first, then the
// least recently used one, but no connection in the middle of a frame.
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
  add();                   // replaces that one
  for (size_t i : {0, 2, 4, 6, 7, 8, 9}) Exchange(*ports[i], peers[i], 6);
  Ask(*ports[1], 7);
  ASSERT_TRUE(peers[1].ReadFrame().has_value());  // the frame that was begun
  Serve(peers[1], 7);
  EXPECT_EQ(7, Told().number);
}

}  // namespace
