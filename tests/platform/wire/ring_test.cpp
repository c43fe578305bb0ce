#include "platform/host/wire/ring.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "platform/host/base/byte_order.h"
#include "tests/platform/wire/ring_support.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kSize = kHostRingSize;
constexpr uint32_t kFirst = kHostRingFirstPosition;

// A lane, and one direction of it with both ends in this process. The test reaches the words as
// another implementation would, by their documented offsets.
struct Lane {
  alignas(128) uint8_t memory[kHostLaneSize] = {};
  alignas(128) uint8_t statusPage[kHostStatusPageSize] = {};

  Lane() { HostFormatLane(memory); }
};

constexpr size_t kWrittenAt = 128;  // of the direction to the server
constexpr size_t kReadAt = 256;
constexpr size_t kWaitsForRoomAt = 384;

class Ring : public testing::Test {
 protected:
  void Set(size_t offset, uint32_t value) { HostStoreBig32(lane->memory + offset, value); }
  uint32_t Get(size_t offset) const { return HostLoadBig32(lane->memory + offset); }

  // Sends `count` bytes of the stream through and gives their room back.
  void Pass(size_t count) {
    ASSERT_EQ(count, producer.Write(StreamBytes(sent, count).data(), count));
    EXPECT_FALSE(producer.Publish());
    ASSERT_TRUE(consumer.Look());
    EXPECT_EQ(count, consumer.Available());
    Bytes got(count);
    ASSERT_EQ(count, consumer.Read(got.data(), count));
    EXPECT_TRUE(StreamBytes(sent, count) == got);
    EXPECT_FALSE(consumer.Release());
    ASSERT_TRUE(producer.Look());
    sent += count;
  }
  bool Publish(size_t count) {
    EXPECT_EQ(count, producer.Write(Bytes(count).data(), count));
    return producer.Publish();
  }
  bool TakeAll() {
    EXPECT_TRUE(consumer.Look());
    Bytes got(consumer.Available());
    consumer.Read(got.data(), got.size());
    return consumer.Release();
  }

  std::unique_ptr<Lane> lane = std::make_unique<Lane>();
  HostSharedWord* sleepWord = HostServerSleepWord(lane->statusPage);
  HostRingProducer producer{lane->memory, HostRingDirection::kToServer, sleepWord};
  HostRingConsumer consumer{lane->memory, HostRingDirection::kToServer};
  HostSleeper server{sleepWord};
  size_t sent = 0;
};

TEST_F(Ring, BytesArriveInOrderAtEveryOffsetAndAcrossTheWrapOfPositions) {
  EXPECT_TRUE(HostIsLane(lane->memory));
  EXPECT_EQ(0, memcmp(lane->memory, "vltL\0\0\0\1\0\4\0", 12));
  // The first 64 KiB end where positions pass 2^32 and the ring wraps.
  for (const size_t count : {1, 65533, 1, 2, 262143, 262144, 100000, 262144, 162143, 1, 1}) {
    SCOPED_TRACE(count);
    Pass(count);
  }
  EXPECT_EQ(Get(kWrittenAt), Get(kReadAt));
  EXPECT_EQ(static_cast<uint32_t>(kFirst + sent), Get(kWrittenAt));
}

TEST_F(Ring, BothDirectionsHaveBytesAndWordsOfTheirOwn) {
  HostRingProducer back(lane->memory, HostRingDirection::kToClient,
                        HostClientSleepWord(lane->memory));
  HostRingConsumer backConsumer(lane->memory, HostRingDirection::kToClient);
  HostSleeper client(HostClientSleepWord(lane->memory));
  const Bytes there(kSize, 1), here(kSize, 2);
  EXPECT_EQ(kSize, producer.Write(there.data(), kSize));
  EXPECT_EQ(kSize, back.Write(here.data(), kSize));
  server.Announce();
  EXPECT_FALSE(back.Publish());  // the client is awake
  EXPECT_TRUE(producer.Publish());
  client.Announce();
  EXPECT_TRUE(back.Publish());
  Bytes got(kSize);
  ASSERT_TRUE(consumer.Look());
  EXPECT_EQ(kSize, consumer.Read(got.data(), kSize));
  EXPECT_TRUE(there == got);
  ASSERT_TRUE(backConsumer.Look());
  EXPECT_EQ(kSize, backConsumer.Read(got.data(), kSize));
  EXPECT_TRUE(here == got);
  back.AnnounceWait();
  EXPECT_FALSE(consumer.Release());
  EXPECT_TRUE(backConsumer.Release());
}

TEST_F(Ring, TakesNoMoreThanItHasRoomForAndGivesNoMoreThanWasPublished) {
  Pass(70000);
  const Bytes bytes = StreamBytes(0, kSize + 1);
  Bytes got(kSize + 1);
  EXPECT_EQ(kSize, producer.Room());
  EXPECT_EQ(kSize, producer.Write(bytes.data(), kSize + 1));
  EXPECT_EQ(0u, producer.Room());
  EXPECT_EQ(0u, producer.Write(bytes.data(), 1));
  ASSERT_TRUE(consumer.Look());
  EXPECT_EQ(0u, consumer.Available());  // nothing is published yet
  EXPECT_EQ(0u, consumer.Read(got.data(), 1));
  EXPECT_FALSE(producer.Publish());
  EXPECT_EQ(0u, consumer.Available());  // as of the last look
  ASSERT_TRUE(consumer.Look());
  EXPECT_EQ(kSize, consumer.Read(got.data(), kSize + 1));
  got.resize(kSize);
  EXPECT_TRUE(StreamBytes(0, kSize) == got);
  ASSERT_TRUE(producer.Look());
  EXPECT_EQ(0u, producer.Room());  // room comes with the release
  EXPECT_FALSE(consumer.Release());
  EXPECT_EQ(0u, producer.Room());
  ASSERT_TRUE(producer.Look());
  EXPECT_EQ(kSize, producer.Room());
}

TEST_F(Ring, PiecesGoThroughInPartsWhereTheyDoNotFitWhole) {
  Bytes bytes = StreamBytes(0, 3 * kSize);
  const iovec pieces[] = {
      {bytes.data(), 32}, {bytes.data() + 32, 0}, {bytes.data() + 32, bytes.size() - 32}};
  size_t done = 0;
  Bytes got;
  int err = EAGAIN;
  for (int round = 0; err == EAGAIN && round < 4; ++round) {
    err = producer.Write(pieces, &done);
    EXPECT_FALSE(producer.Publish());
    ASSERT_TRUE(consumer.Look());
    const size_t part = round == 0 ? 7 : consumer.Available();  // ends within the first piece
    got.resize(got.size() + part);
    EXPECT_EQ(part, consumer.Read(got.data() + got.size() - part, part));
    EXPECT_FALSE(consumer.Release());
  }
  EXPECT_EQ(0, err);
  EXPECT_EQ(bytes.size(), done);
  EXPECT_TRUE(bytes == got);
  ASSERT_TRUE(producer.Look());
  Set(kReadAt, kFirst);
  EXPECT_FALSE(producer.Look());
  EXPECT_EQ(EBADMSG, producer.Write(pieces, &(done = 0)));
  EXPECT_EQ(0u, done);
}

TEST_F(Ring, PeekCopiesWithoutTakingAndOnlyWhatIsThereWhole) {
  Pass(65530);  // the ring wraps 6 bytes on
  const Bytes bytes = StreamBytes(0, 32);
  producer.Write(bytes.data(), 31);
  EXPECT_FALSE(producer.Publish());
  ASSERT_TRUE(consumer.Look());
  Bytes got(32);
  EXPECT_FALSE(consumer.Peek(got.data(), 32));
  EXPECT_TRUE(Bytes(32) == got);
  producer.Write(bytes.data() + 31, 1);
  EXPECT_FALSE(producer.Publish());
  ASSERT_TRUE(consumer.Look());
  EXPECT_TRUE(consumer.Peek(got.data(), 32));
  EXPECT_TRUE(bytes == got);
  EXPECT_EQ(32u, consumer.Available());
  consumer.Skip(31);
  EXPECT_EQ(1u, consumer.Read(got.data(), 32));
  EXPECT_EQ(bytes[31], got[0]);
}

// Each row begins 100 bytes before positions pass 2^32; then 300 were published (and 50 only
// written), 200 read and 100 of these released, and both ends have looked.
TEST_F(Ring, AnImpossiblePositionBreaksTheEndThatReadsItForGood) {
  constexpr uint32_t kBase = kFirst + 65436;
  const struct {
    const char* what;
    size_t word;
    uint32_t value;
    bool isPossible;
  } rows[] = {{"nothing new", kWrittenAt, kBase + 300, true},
              {"more", kWrittenAt, kBase + 301, true},
              {"a full ring", kWrittenAt, kBase + 100 + uint32_t{kSize}, true},
              {"more than was released", kWrittenAt, kBase + 101 + uint32_t{kSize}, false},
              {"more than a ring", kWrittenAt, kBase + 201 + uint32_t{kSize}, false},
              {"one byte fewer", kWrittenAt, kBase + 299, false},
              {"fewer than were read", kWrittenAt, kBase + 150, false},
              {"fewer than were released", kWrittenAt, kBase + 99, false},
              {"half of all positions on", kWrittenAt, kBase + 0x80000000, false},
              {"nothing new", kReadAt, kBase + 100, true},
              {"one more", kReadAt, kBase + 101, true},
              {"all that was published", kReadAt, kBase + 300, true},
              {"what is not published", kReadAt, kBase + 301, false},
              {"what is not written", kReadAt, kBase + 351, false},
              {"back by one", kReadAt, kBase + 99, false},
              {"back by a ring", kReadAt, kBase + 100 - uint32_t{kSize}, false},
              {"half of all positions on", kReadAt, kBase + 0x80000000, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.word == kReadAt ? "read " : "written ") << row.what);
    lane = std::make_unique<Lane>();
    sent = 0;
    HostSharedWord* word = HostServerSleepWord(lane->statusPage);
    producer = HostRingProducer(lane->memory, HostRingDirection::kToServer, word);
    consumer = HostRingConsumer(lane->memory, HostRingDirection::kToServer);
    Pass(65436);
    Bytes bytes(300);
    EXPECT_FALSE(Publish(300));
    ASSERT_TRUE(consumer.Look());
    EXPECT_EQ(100u, consumer.Read(bytes.data(), 100));
    EXPECT_FALSE(consumer.Release());
    EXPECT_EQ(100u, consumer.Read(bytes.data(), 100));
    ASSERT_TRUE(producer.Look());
    EXPECT_EQ(50u, producer.Write(bytes.data(), 50));
    const size_t room = producer.Room(), available = consumer.Available();
    const uint32_t before = Get(row.word);

    Set(row.word, row.value);
    auto look = [&] { return row.word == kReadAt ? producer.Look() : consumer.Look(); };
    EXPECT_EQ(row.isPossible, look());
    if (row.isPossible) continue;
    EXPECT_EQ(room, producer.Room());
    EXPECT_EQ(available, consumer.Available());
    Set(row.word, before);
    EXPECT_FALSE(look());
    EXPECT_EQ(available, consumer.Read(bytes.data(), 300));
  }
}

TEST_F(Ring, ASleepingConsumerIsRungOnceForEachSleep) {
  EXPECT_FALSE(Publish(1));
  server.Announce();
  EXPECT_TRUE(Publish(1));
  EXPECT_FALSE(Publish(1));
  server.Withdraw();
  EXPECT_FALSE(TakeAll());
  EXPECT_FALSE(Publish(1));
  server.Announce();
  EXPECT_TRUE(Publish(1));
  server.Withdraw();
  server.Announce();  // without a publication in between, or anything taken
  EXPECT_TRUE(Publish(1));
  // 2^32 sleeps later the number is the same.
  const uint32_t number = sleepWord->Load();
  EXPECT_FALSE(TakeAll());
  sleepWord->Store(number);
  EXPECT_TRUE(Publish(1));
  // A number is never 0, which stands for a side that is awake.
  EXPECT_NE(0u, number);
}

TEST_F(Ring, AProducerThatWaitsForRoomIsRungOnceHalfOfTheRingIsFree) {
  Bytes bytes(kSize);
  EXPECT_FALSE(Publish(kSize));
  ASSERT_TRUE(consumer.Look());
  EXPECT_EQ(0u, Get(kWaitsForRoomAt));
  producer.AnnounceWait();
  EXPECT_NE(0u, Get(kWaitsForRoomAt));
  consumer.Read(bytes.data(), kSize / 2 - 1);
  EXPECT_FALSE(consumer.Release());
  consumer.Read(bytes.data(), 1);
  EXPECT_TRUE(consumer.Release());
  consumer.Read(bytes.data(), 1);
  EXPECT_FALSE(consumer.Release());
  producer.WithdrawWait();
  EXPECT_EQ(0u, Get(kWaitsForRoomAt));
  producer.AnnounceWait();
  EXPECT_TRUE(consumer.Release());
  producer.WithdrawWait();
  EXPECT_FALSE(consumer.Release());
}

// Lets two threads go on at nearly the same moment.
class Meeting {
 public:
  void Wait() {
    const unsigned mine = came.fetch_add(1) / 2;
    for (int turns = 0; came.load() < 2 * (mine + 1); ++turns) {
      if (turns > 50000) sched_yield();
    }
  }
  // Tries other distances between the two in each round.
  static void Delay(int turns) {
    for (std::atomic<int> i{0}; i.load(std::memory_order_relaxed) < turns;) {
      i.store(i.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

 private:
  std::atomic<unsigned> came{0};
};

// One side publishes while the other one announces its sleep: at least one of them notices. A
// missing fence shows only while both threads run, so the number of rounds depends on the time they
// get.
TEST_F(Ring, AWakeUpIsNotLostWhenBothSidesActAtTheSameMoment) {
  constexpr int kRounds = 300000;
  const auto end = std::chrono::steady_clock::now() + 1s;
  Meeting meeting;
  bool seen = false, isLast = false;
  std::thread thread([&] {
    int turn = 0;
    while (!isLast) {
      meeting.Wait();
      Meeting::Delay(turn % 97);
      ++turn;
      server.Announce();
      seen = consumer.Look() && consumer.Available() > 0;
      meeting.Wait();
      server.Withdraw();
      EXPECT_TRUE(consumer.Look());
      consumer.Skip(consumer.Available());
      meeting.Wait();
      seen = consumer.Release();
      meeting.Wait();
      meeting.Wait();
    }
  });
  int lost = 0, done = 0;
  for (int round = 0; round < kRounds && !isLast; ++round) {
    EXPECT_EQ(1u, producer.Write("", 1));
    meeting.Wait();
    Meeting::Delay(round % 89);
    const bool rings = producer.Publish();
    meeting.Wait();
    lost += !rings && !seen;
    const size_t room = producer.Room();
    meeting.Wait();
    producer.AnnounceWait();
    const bool hasRoom = producer.Look() && producer.Room() > room;
    meeting.Wait();
    ++done;
    lost += !hasRoom && !seen;
    producer.WithdrawWait();
    isLast = round + 1 == kRounds || std::chrono::steady_clock::now() > end;
    meeting.Wait();
  }
  thread.join();
  EXPECT_EQ(0, lost) << "of " << done;
}

TEST(LaneFormat, OnlyALaneOfThisLayoutIsAccepted) {
  const auto lane = std::make_unique<Lane>();
  for (const size_t offset : {0, 4, 7, 8, 9}) {
    SCOPED_TRACE(offset);
    lane->memory[offset] ^= 1;
    EXPECT_FALSE(HostIsLane(lane->memory));
    lane->memory[offset] ^= 1;
    EXPECT_TRUE(HostIsLane(lane->memory));
  }
}

}  // namespace
