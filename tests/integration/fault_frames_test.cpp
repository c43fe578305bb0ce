#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "platform/host/events/codec.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/session_directory.h"

// Frames of all sizes, in all pieces, with false lengths and with what does not belong to them.

namespace {

using FrameSizes = FaultTest;
using HostilePeers = FaultTest;

constexpr size_t kBodyLimit = kHostFrameLimit - kHostFrameHeaderSize;

// Lists within lists, ten thousand deep.
std::string NestedBody() {
  std::string body(20, '\0');
  for (int i = 0; i < 10000; i++) body += std::string("****list\0\0\xFF\xFF\0\0\0\x01", 16);
  return body;
}

// A header whose eight bytes of length and reserved word are all ones.
std::string HeaderOfOnes() {
  std::string header = RawHeader(0);
  for (size_t i = 8; i < 16; i++) header[i] = '\xFF';
  return header;
}

TEST_F(HostilePeers, FalseLengthsAndSilenceCostNoMemory) {
  const std::string nested = NestedBody();
  std::string wrongMagic = RawHeader(0);
  wrongMagic[0] = 'X';
  const std::tuple<const char*, std::string, bool> rows[] = {
      {"nothing", "", false},
      {"half a header", RawHeader(100).substr(0, 16), false},
      {"a body that is cut", RawHeader(1000) + std::string(500, 'b'), false},
      {"zeros", RawHeader(64) + std::string(64, '\0'), false},
      {"random", PatternBytes(1024), true},
      {"a random body", RawHeader(1024) + PatternBytes(1024), false},
      {"wrong magic", wrongMagic, true},
      {"nested", RawHeader(static_cast<uint32_t>(nested.size())) + nested, false},
      {"0", RawHeader(0), false},  // a valid frame without an event
      {"the limit", RawHeader(kBodyLimit), false},
      {"the limit + 1", RawHeader(kBodyLimit + 1), true},
      {"2^31", RawHeader(0x80000000), true},
      {"2^32 - 1", RawHeader(0xFFFFFFFF), true},
      {"2^64 - 1", HeaderOfOnes(), true},
  };
  RunOnThread([&] { EXPECT_EQ(0, AskServer(server.PortName()).status); });
  before.memory = UseOf(server.Pid()).memory;  // a server that has served once
  ClearTestLog();
  size_t most = 0;
  for (int round = 0; round < 20; round++) {
    std::vector<RawPeer> hostile;
    for (const auto& [what, bytes, hungUpOn] : rows) {
      SCOPED_TRACE(what);
      hostile.emplace_back(server.PortName());
      ASSERT_TRUE(hostile.back().Write(bytes));
      ASSERT_TRUE(hostile.back().WaitTaken());
      if (hungUpOn) {
        EXPECT_TRUE(hostile.back().WaitHungUp());
      }
    }
    RunOnThread([&] { EXPECT_EQ(round, AskServer(server.PortName(), kEchoID, round).number); });
    most = std::max(most, UseOf(server.Pid()).memory);
  }
  if (kMemoryTells) {
    EXPECT_LT(most, before.memory + (size_t{4} << 20));
  }
  EXPECT_EQ("", TestLogText());
}

// Returns whether no process has the writing end of a pipe any more.
bool NobodyHas(int readingEnd) {
  pollfd entry = {readingEnd, POLLIN, 0};
  return poll(&entry, 1, 20000) == 1 && (entry.revents & POLLHUP) != 0;
}

void PassOneOfAPipe(RawPeer& peer, const std::string& bytes) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  EXPECT_TRUE(peer.WriteWithDescriptor(bytes, ends[1]));
  close(ends[1]);
  EXPECT_TRUE(peer.WaitHungUp());
  EXPECT_TRUE(NobodyHas(ends[0]));
  close(ends[0]);
}

TEST(PassedDescriptors, AreRefusedAndNeverKept) {
  const std::string frame = RawFrame(RawRequest(1), kEchoID, 1);
  for (const bool nearTheLimit : {false, true}) {
    SCOPED_TRACE(nearTheLimit);
    OpenDescriptorCheck noLeaks;
    ReadyProcess server("NarrowFaultServer", {"32"});
    const ProcessUse before = UseOf(server.Pid());
    {
      std::vector<RawPeer> silent;
      for (int i = 0; nearTheLimit && i < 40; i++) silent.emplace_back(server.PortName());
      RunOnThread([&] { EXPECT_EQ(0, AskServer(server.PortName()).status); });
      const size_t open = UseOf(server.Pid()).descriptors;
      for (int round = 0; round < 50; round++) {
        for (const size_t size : {size_t{1}, size_t{16}, frame.size() - 1, frame.size()}) {
          RawPeer peer(server.PortName());
          PassOneOfAPipe(peer, frame.substr(0, size));
        }
        EXPECT_LE(UseOf(server.Pid()).descriptors, open + 1);
        RunOnThread([&] { EXPECT_EQ(0, AskServer(server.PortName()).status); });
      }
    }
    ExpectBackAt(before, server.Pid());
  }
}

TEST_F(HostilePeers, GetTheRepliesToRequestsBeforeABadFrame) {
  RawPeer peer(server.PortName());
  ASSERT_TRUE(peer.Write(RawFrame(RawRequest(1), kEchoID, 1)));
  const auto answer = peer.ReadFrame();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(1u, answer->header.requestNumber);
  PassOneOfAPipe(peer, RawFrame(RawRequest(2), kEchoID, 2));
}

size_t DefaultSendBuffer() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length);
  close(fd);
  return static_cast<size_t>(size);
}

TEST_F(FrameSizes, TravelByteExactOrAreRefused) {
  const size_t buffer = DefaultSendBuffer();
  // Data that makes a frame of exactly the limit.
  const size_t largest = kHostFrameLimit - RawFrame(RawRequest(1), kEchoID, 1).size();
  const std::tuple<size_t, OSStatus> rows[] = {
      {0, 0},
      {1, 0},
      {4097, 0},
      {buffer - 1, 0},
      {buffer + 1, 0},
      {2 * buffer + 1, 0},
      {largest + 1, memFullErr},
      {largest - 1, 0},  // the connection goes on
      {largest, 0},
  };
  RunOnThread([&] {
    for (const auto& [size, err] : rows) {
      SCOPED_TRACE(size);
      const std::string data = PatternBytes(size);
      const FaultAnswer answer = AskServer(server.PortName(), kEchoID, 1, data);
      EXPECT_EQ(err, answer.status);
      EXPECT_TRUE(err != 0 || data == answer.data);
    }
  });
}

}  // namespace
