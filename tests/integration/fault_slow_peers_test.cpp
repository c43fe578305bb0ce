#include <gtest/gtest.h>
#include <time.h>

#include <CoreServices/CoreServices.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/host/clock.h"
#include "tests/integration/fault_server.h"
#include "tests/integration/process_use.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Peers that do next to nothing, in numbers: they hold descriptors, buffers and patience of a
// server that has few of the first.

namespace {

constexpr int kServerDescriptors = 128;
constexpr int kSlowPeers = 500;
constexpr int kSilentPeers = 1000;
constexpr SInt32 kUnreadReply = 10 << 20;  // bytes
constexpr int64_t kPace = 5 * kHostMillisecond;
// Meant to be 50 ms and 1 s; ten times that on a busy machine.
constexpr int64_t kMostForAnAnswer = 500 * kHostMillisecond;

void SleepUntil(int64_t instant) {
  timespec time = {};
  time.tv_sec = static_cast<time_t>(instant / kHostSecond);
  time.tv_nsec = static_cast<decltype(time.tv_nsec)>(instant % kHostSecond);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}

// Asks at a steady pace until the test says something: "kept" on one connection, "new" on a
// connection of its own for each request. Tells requests, answers and the longest wait.
TEST_ROLE(GoodClient) {
  const bool kept = role.Argument(0) == "kept";
  int sent = 0, answered = 0;
  int64_t longest = 0;
  const auto ask = [&] {
    const FaultAnswer answer = AskServer(role.PortName(), kEchoID, ++sent);
    if (answer.status == 0 && answer.number == sent) answered++;
    longest = std::max(longest, answer.elapsed);
  };
  ask();
  role.SignalReady();
  while (!role.Hear(0ms)) {
    const int64_t next = HostNow() + kPace;
    if (kept) {
      ask();
    } else {
      RunOnThread(ask);
    }
    SleepUntil(next);
  }
  std::ostringstream line;
  line << sent << ' ' << answered << ' ' << longest;
  role.Tell(line.str());
  return kRoleDone;
}

class SlowPeers {
 public:
  SlowPeers(const char* port, int count) : name(port), frame(RawFrame(RawRequest(1), kEchoID, 1)) {
    for (int i = 0; i < count; i++) peers.push_back({RawPeer(name), 0});
  }

  // Each writes one more byte. One that was hung up on connects anew and begins again.
  void WriteOneByteEach() {
    for (Peer& peer : peers) {
      if (peer.written < frame.size() && peer.connection.Write(frame.substr(peer.written, 1))) {
        peer.written++;
      } else {
        peer = {RawPeer(name), 0};
      }
    }
  }

 private:
  struct Peer {
    RawPeer connection;
    size_t written;
  };
  const char* name;
  std::string frame;
  std::vector<Peer> peers;
};

void ExpectWellServed(TestProcess& client, const char* property) {
  client.Tell("end");
  std::istringstream line(client.Hear(60s).value_or(""));
  int sent = 0, answered = -1;
  int64_t longest = 0;
  line >> sent >> answered >> longest;
  EXPECT_GT(sent, 10);
  EXPECT_EQ(sent, answered);
  EXPECT_LT(longest, kMostForAnAnswer);
  EXPECT_EQ(kRoleDone, client.Wait(20s));
  testing::Test::RecordProperty(property, std::to_string(longest / 1000));
}

TEST(SlowPeers, HoldNobodyUpThoughDescriptorsAreFew) {
  RaiseDescriptorLimit();
  OpenDescriptorCheck noLeaks;
  TestProcess server("NarrowFaultServer", {std::to_string(kServerDescriptors)});
  ASSERT_TRUE(server.WaitReady(20s));
  const ProcessUse before = UseOf(server.Pid());
  TestProcess kept("GoodClient", server.PortName(), {"kept"});
  TestProcess fresh("GoodClient", server.PortName(), {"new"});
  ASSERT_TRUE(kept.WaitReady(20s));
  ASSERT_TRUE(fresh.WaitReady(20s));
  {
    const int64_t start = HostNow();
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
      EXPECT_LE(UseOf(server.Pid()).descriptors, size_t{kServerDescriptors});
    }
    const int64_t busy = UseOf(server.Pid()).processorTime - used;
    const int64_t share = 100 * busy / (HostNow() - began);
    // Two clients that ask 200 times a second take a few per cent; a server that spins takes all.
    EXPECT_LT(share, 50);
    RecordProperty("processor_percent", std::to_string(share));
    RecordProperty("connecting_us", std::to_string((began - start) / 1000));
    ExpectWellServed(kept, "kept_us");
    ExpectWellServed(fresh, "new_us");
  }
  RecordProperty("back_ms", std::to_string(ExpectBackAt(before, server.Pid(), 10s)));
  const ProcessUse after = UseOf(server.Pid());
  EXPECT_LT(after.memory, before.memory + (size_t{4} << 20));
  RunOnThread([&] { EXPECT_EQ(0, AskServer(server.PortName()).status); });
}

}  // namespace
