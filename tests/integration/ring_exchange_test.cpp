#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "platform/host/base/byte_order.h"
#include "tests/platform/wire/ring_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Two processes, also of two CPU architectures, at the ends of one lane. A message is a size of
// four bytes and so many bytes; the server sends each complete message back. Both sleep whenever
// there is nothing to do, so a lost wake-up ends the test at the limit of a wait.

namespace {

constexpr size_t kSizeBytes = 4;
constexpr size_t kLargest = 3 * kHostRingSize;

// A file of the test's folder, mapped.
class Mapping {
 public:
  Mapping(const std::string& path, size_t length, int access) : size(length) {
    const int fd = open(path.c_str(), access == PROT_READ ? O_RDONLY : O_RDWR);
    void* mapped = mmap(nullptr, size, access, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped != MAP_FAILED) memory = mapped;
  }
  ~Mapping() {
    if (memory != nullptr) munmap(memory, size);
  }
  void* memory = nullptr;

 private:
  size_t size;
};

// One side of a lane: its rings and the doorbells of both sides.
struct Side {
  HostRingProducer out;
  HostRingConsumer in;
  HostSleeper sleeper;
  Doorbell peer, own;

  bool Send(const Bytes& body) {
    Bytes message(kSizeBytes);
    HostStoreBig32(message.data(), static_cast<uint32_t>(body.size()));
    message.insert(message.end(), body.begin(), body.end());
    return WriteAll(out, message, peer, own);
  }
  bool Take(size_t count, Bytes* bytes) {
    bytes->clear();
    while (bytes->size() < count) {
      const Bytes part = ReadSome(in, count - bytes->size(), sleeper, peer, own);
      if (part.empty()) return false;
      bytes->insert(bytes->end(), part.begin(), part.end());
    }
    return true;
  }
  bool Receive(Bytes* body) {
    Bytes size;
    return Take(kSizeBytes, &size) && HostLoadBig32(size.data()) <= kLargest &&
           Take(HostLoadBig32(size.data()), body);
  }
};

struct Doorbells {
  explicit Doorbells(const std::string& folder)
      : client(open((folder + "/client").c_str(), O_RDWR | O_CLOEXEC)),
        server(open((folder + "/server").c_str(), O_RDWR | O_CLOEXEC)) {}
  ~Doorbells() {
    close(client);
    close(server);
  }
  int client, server;
};

TEST_ROLE(EchoServer) {
  const std::string& folder = role.Argument(0);
  const Doorbells bells(folder);
  Mapping lane(folder + "/lane", kHostLaneSize, PROT_READ | PROT_WRITE);
  Mapping status(folder + "/status", kHostStatusPageSize, PROT_READ | PROT_WRITE);
  if (lane.memory == nullptr || status.memory == nullptr || !HostIsLane(lane.memory)) {
    return RoleFailed();
  }
  Side side = {{lane.memory, HostRingDirection::kToClient, HostClientSleepWord(lane.memory)},
               {lane.memory, HostRingDirection::kToServer},
               HostSleeper(HostServerSleepWord(status.memory)),
               Doorbell(bells.client),
               Doorbell(bells.server)};
  role.SignalReady();
  Bytes body;
  do {
    if (!side.Receive(&body) || !side.Send(body)) return RoleFailed();
  } while (!body.empty());
  return kRoleDone;
}

void Exchange(TestPeer peer) {
  OpenDescriptorCheck noLeaks;
  ScratchFolder folder;
  ASSERT_EQ(0, truncate(folder.File("lane").c_str(), kHostLaneSize));
  ASSERT_EQ(0, truncate(folder.File("status").c_str(), kHostStatusPageSize));
  ASSERT_EQ(0, mkfifo(folder.Path("client").c_str(), 0600));
  ASSERT_EQ(0, mkfifo(folder.Path("server").c_str(), 0600));
  const Doorbells bells(folder.Path());
  Mapping lane(folder.Path("lane"), kHostLaneSize, PROT_READ | PROT_WRITE);
  // Read access is enough for the server's word.
  Mapping status(folder.Path("status"), kHostStatusPageSize, PROT_READ);
  ASSERT_NE(nullptr, lane.memory);
  ASSERT_NE(nullptr, status.memory);
  HostFormatLane(lane.memory);
  const void* statusPage = status.memory;
  Side side = {{lane.memory, HostRingDirection::kToServer, HostServerSleepWord(statusPage)},
               {lane.memory, HostRingDirection::kToClient},
               HostSleeper(HostClientSleepWord(lane.memory)),
               Doorbell(bells.server),
               Doorbell(bells.client)};
  TestProcess server("EchoServer", {folder.Path()}, peer);
  ASSERT_TRUE(server.WaitReady(60s));

  const std::pair<size_t, int> rows[] = {{1, 2000},          {160, 2000},   {65536, 20},
                                         {kHostRingSize, 8}, {kLargest, 8}, {0, 1}};
  for (const auto& [size, count] : rows) {
    SCOPED_TRACE(size);
    for (int i = 0; i < count; ++i) {
      const Bytes body = StreamBytes(static_cast<size_t>(i), size);
      ASSERT_TRUE(side.Send(body));
      Bytes answer;
      ASSERT_TRUE(side.Receive(&answer));
      ASSERT_TRUE(body == answer);
    }
  }
  EXPECT_EQ(kRoleDone, server.Wait(20s));
}

// With a process of each build that this build knows.
TEST(RingExchange, TwoProcessesLoseNeitherBytesNorWakeUps) {
  for (const TestPeer peer : AllHosts()) Exchange(peer);
}

}  // namespace
