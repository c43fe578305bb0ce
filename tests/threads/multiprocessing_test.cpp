#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <set>

#include "tests/support/rounds.h"
#include "tests/threads/bounded.h"

namespace {

constexpr Duration kLong = 60'000;  // ends a failing test

void* Number(intptr_t number) { return reinterpret_cast<void*>(number); }

struct Queue {
  Queue() { EXPECT_EQ(noErr, MPCreateQueue(&id)); }
  ~Queue() { MPDeleteQueue(id); }
  OSStatus Post(intptr_t number) { return MPNotifyQueue(id, Number(number), nullptr, nullptr); }
  intptr_t Take(Duration timeout = kLong) {
    void* number = Number(-1);
    EXPECT_EQ(noErr, MPWaitOnQueue(id, &number, nullptr, nullptr, timeout));
    return reinterpret_cast<intptr_t>(number);
  }
  MPQueueID id = kInvalidID;
};

TEST(MPQueue, GivesMessagesInTheirOrder) {
  Queue queue;
  intptr_t taken = 0;
  // More than the ring's first size, and never empty, so that it wraps and grows.
  for (intptr_t posted = 0; posted < 5000;) {
    for (int i = 0; i < 7; i++) EXPECT_EQ(noErr, queue.Post(posted++));
    for (int i = 0; i < 4; i++) EXPECT_EQ(taken++, queue.Take());
  }
  while (taken < 5005) EXPECT_EQ(taken++, queue.Take(kDurationImmediate));
  void* untouched = Number(77);
  EXPECT_EQ(kMPTimeoutErr, MPWaitOnQueue(queue.id, &untouched, nullptr, nullptr, 0));
  EXPECT_EQ(Number(77), untouched);
}

TEST(MPQueue, HoldsNoMoreThanItsReserve) {
  const struct {
    ItemCount reserve;
    int before;  // messages in it already
    int accepted;
  } rows[] = {{1, 0, 1}, {17, 2, 15}, {2, 5, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reserve);
    Queue queue;
    for (int i = 0; i < row.before; i++) EXPECT_EQ(noErr, queue.Post(i));
    EXPECT_EQ(noErr, MPSetQueueReserve(queue.id, row.reserve));
    int accepted = 0;
    while (accepted < 100 && queue.Post(row.before + accepted) == noErr) accepted++;
    EXPECT_EQ(row.accepted, accepted);
    EXPECT_EQ(kMPInsufficientResourcesErr, queue.Post(0));
    for (int i = 0; i < row.before + accepted; i++) EXPECT_EQ(i, queue.Take());
    EXPECT_EQ(noErr, MPSetQueueReserve(queue.id, 0));
    EXPECT_EQ(noErr, queue.Post(0));
  }
  Queue queue;
  EXPECT_EQ(kMPInsufficientResourcesErr, MPSetQueueReserve(queue.id, 0xFFFFFFFF));
}

TEST(MPQueue, ATaskIsReportedInAFullQueueToo) {
  Queue queue;
  EXPECT_EQ(noErr, MPSetQueueReserve(queue.id, 1));
  EXPECT_EQ(noErr, queue.Post(1));
  MPTaskID task = kInvalidID;
  EXPECT_EQ(noErr, MPCreateTask([](void*) -> OSStatus { return -50; }, nullptr, 0, queue.id,
                                Number(2), Number(3), 0, &task));
  EXPECT_EQ(1, queue.Take());
  void* message[3] = {};
  EXPECT_EQ(noErr, MPWaitOnQueue(queue.id, &message[0], &message[1], &message[2], kLong));
  EXPECT_EQ(Number(2), message[0]);
  EXPECT_EQ(Number(3), message[1]);
  EXPECT_EQ(Number(-50), message[2]);
}

TEST(MPQueue, DeletedWhileOthersPostAndWait) {
  for (int round = 0; round < 300; round++) {
    MPQueueID queue = kInvalidID;
    ASSERT_EQ(noErr, MPCreateQueue(&queue));
    std::atomic<int> posted{0}, taken{0}, deleted{0};
    InThreads(4, [&](int number) {
      if (number == 3) {
        while (posted < 20) MPYield();
        EXPECT_EQ(noErr, MPDeleteQueue(queue));
        return;
      }
      OSStatus err = noErr;
      while (err == noErr) {
        err = number == 0 ? MPNotifyQueue(queue, nullptr, nullptr, nullptr)
                          : MPWaitOnQueue(queue, nullptr, nullptr, nullptr, kDurationForever);
        if (err == noErr) (number == 0 ? posted : taken)++;
        if (err == kMPInsufficientResourcesErr) err = noErr;  // full, as nobody else was let run
      }
      EXPECT_TRUE(err == kMPInvalidIDErr || (number != 0 && err == kMPDeletedErr)) << err;
      deleted++;
    });
    EXPECT_EQ(3, deleted);
    EXPECT_LE(taken, posted);
    EXPECT_EQ(kMPInvalidIDErr, MPNotifyQueue(queue, nullptr, nullptr, nullptr));
  }
}

TEST(MPQueue, EachMessageGoesToOneWaiter) {
  constexpr int kMessages = 20000;
  Queue queue;
  std::atomic<int64_t> sum{0};
  InThreads(6, [&](int number) {
    for (int i = 0; i < kMessages; i++) {
      if (number < 3) {
        EXPECT_EQ(noErr, queue.Post(number * kMessages + i));
      } else {
        sum += queue.Take();
      }
    }
  });
  constexpr int64_t kAll = 3 * kMessages;
  EXPECT_EQ(kAll * (kAll - 1) / 2, sum);
}

TEST(MPQueue, DeadIdsStayDead) {
  MPQueueID first = kInvalidID;
  ASSERT_EQ(noErr, MPCreateQueue(&first));
  ASSERT_EQ(noErr, MPDeleteQueue(first));
  std::set<MPQueueID> seen = {first};
  for (int i = 0; i < 5000; i++) {
    MPQueueID id = kInvalidID;
    ASSERT_EQ(noErr, MPCreateQueue(&id));
    EXPECT_TRUE(seen.insert(id).second);
    ASSERT_EQ(noErr, MPDeleteQueue(id));
    EXPECT_EQ(kMPInvalidIDErr, MPDeleteQueue(id));
  }
  EXPECT_EQ(kMPInvalidIDErr, MPSetEvent(reinterpret_cast<MPEventID>(first), 1));
}

std::atomic<int> gThreadObjectsGone{0};
struct ThreadObject {
  bool used = false;
  ~ThreadObject() { gThreadObjectsGone++; }
};

// The body of a task. Its parameter gets the task's id.
void BeATask(void* seen) {
  thread_local ThreadObject object;
  object.used = true;
  *static_cast<MPTaskID*>(seen) = MPCurrentTaskID();
  EXPECT_TRUE(MPTaskIsPreemptive(MPCurrentTaskID()));
}

// The result of a return and of MPExit. The id is invalid afterwards.
TEST(MPTask, ReportsItsResultAfterItsThreadsObjectsAreDestroyed) {
  const struct {
    TaskProc entry;
    ByteCount stackSize;
    intptr_t result;
  } rows[] = {
      {[](void* seen) -> OSStatus { return BeATask(seen), -29296; }, 1, -29296},
      {[](void* seen) -> OSStatus { BeATask(seen), MPExit(-3); }, 1 << 20, -3},
  };
  for (const auto& row : rows) {
    Queue queue;
    gThreadObjectsGone = 0;
    MPTaskID task = kInvalidID, seen = kInvalidID;
    ASSERT_EQ(noErr,
              MPCreateTask(row.entry, &seen, row.stackSize, queue.id, nullptr, nullptr, 0, &task));
    void* result = nullptr;
    ASSERT_EQ(noErr, MPWaitOnQueue(queue.id, nullptr, nullptr, &result, kLong));
    EXPECT_EQ(Number(row.result), result);
    EXPECT_EQ(1, gThreadObjectsGone);
    EXPECT_EQ(task, seen);
    EXPECT_FALSE(MPTaskIsPreemptive(task));
  }
  EXPECT_EQ(kInvalidID, MPCurrentTaskID());
}

TEST(MPEvent, TheWholeWordGoesToOneWaiter) {
  MPEventID event = kInvalidID;
  ASSERT_EQ(noErr, MPCreateEvent(&event));
  MPEventFlags flags = 99;
  EXPECT_EQ(noErr, MPSetEvent(event, 0));
  EXPECT_EQ(kMPTimeoutErr, MPWaitForEvent(event, &flags, -1));
  EXPECT_EQ(99u, flags);
  EXPECT_EQ(noErr, MPSetEvent(event, 0x80000000));
  EXPECT_EQ(noErr, MPSetEvent(event, 5));
  EXPECT_EQ(noErr, MPWaitForEvent(event, &flags, kLong));
  EXPECT_EQ(0x80000005u, flags);
  EXPECT_EQ(kMPTimeoutErr, MPWaitForEvent(event, nullptr, 0));

  // Each flag is seen once.
  std::atomic<int> set{0}, taken{0};
  std::atomic<bool> isOver{false};
  InThreads(4, [&](int number) {
    if (number == 0) {
      for (Rounds rounds(3000); rounds.Next();) {
        EXPECT_EQ(noErr, MPSetEvent(event, 1));
        set++;
        while (taken < set) MPYield();
      }
      isOver = true;
      return;
    }
    MPEventFlags flag = 0;
    while (!isOver) {
      if (MPWaitForEvent(event, &flag, 1) == noErr) taken++;
    }
  });
  EXPECT_EQ(set, taken);
  EXPECT_EQ(noErr, MPDeleteEvent(event));
  EXPECT_EQ(kMPInvalidIDErr, MPWaitForEvent(event, nullptr, kDurationForever));
}

// Some objects are never deleted, such as the event group of a run-loop thread. That takes memory
// and, on a 32-bit architecture, ids.
TEST(MPEvent, LostOnesLeaveIdsForOthers) {
  constexpr size_t kWanted = 300'000;
  std::vector<MPEventID> events;
  MPEventID event = kInvalidID;
  while (events.size() < kWanted && MPCreateEvent(&event) == noErr) events.push_back(event);
  if (sizeof(void*) >= 8) {
    EXPECT_EQ(kWanted, events.size());
  } else {
    EXPECT_GT(events.size(), size_t{260'000});
  }
  for (size_t i = 0; i < events.size(); i++) {
    ASSERT_EQ(noErr, MPSetEvent(events[i], static_cast<MPEventFlags>(i + 1)));
  }
  for (size_t i = 0; i < events.size(); i++) {
    MPEventFlags flags = 0;
    ASSERT_EQ(noErr, MPWaitForEvent(events[i], &flags, kDurationImmediate));
    ASSERT_EQ(i + 1, flags);
    ASSERT_EQ(noErr, MPDeleteEvent(events[i]));
    ASSERT_EQ(kMPInvalidIDErr, MPSetEvent(events[i], 1));
  }
}

TEST(MPSemaphore, CountsUpToItsMaximum) {
  MPSemaphoreID semaphore = kInvalidID;
  EXPECT_EQ(paramErr, MPCreateSemaphore(1, 2, &semaphore));
  ASSERT_EQ(noErr, MPCreateSemaphore(2, 1, &semaphore));
  EXPECT_EQ(noErr, MPSignalSemaphore(semaphore));
  EXPECT_EQ(kMPInsufficientResourcesErr, MPSignalSemaphore(semaphore));
  for (const OSStatus result : {OSStatus{noErr}, OSStatus{noErr}, OSStatus{kMPTimeoutErr}}) {
    EXPECT_EQ(result, MPWaitOnSemaphore(semaphore, 0));
  }
  EXPECT_EQ(noErr, MPDeleteSemaphore(semaphore));
}

TEST(MPCriticalRegion, LetsOneThreadInAsOftenAsItLikes) {
  MPCriticalRegionID region = kInvalidID;
  ASSERT_EQ(noErr, MPCreateCriticalRegion(&region));
  EXPECT_EQ(kMPInsufficientResourcesErr, MPExitCriticalRegion(region));
  int count = 0;  // guarded by the region
  InThreads(4, [&](int) {
    for (int i = 0; i < 2000; i++) {
      EXPECT_EQ(noErr, MPEnterCriticalRegion(region, kDurationForever));
      EXPECT_EQ(noErr, MPEnterCriticalRegion(region, 0));
      count++;
      EXPECT_EQ(noErr, MPExitCriticalRegion(region));
      EXPECT_EQ(noErr, MPExitCriticalRegion(region));
    }
  });
  EXPECT_EQ(8000, count);
  EXPECT_EQ(noErr, MPEnterCriticalRegion(region, 0));
  std::thread([&] { EXPECT_EQ(kMPTimeoutErr, MPEnterCriticalRegion(region, 1)); }).join();
  EXPECT_EQ(noErr, MPDeleteCriticalRegion(region));
}

TEST(MPWaits, LastAsLongAsTheySay) {
  Queue queue;
  for (const Duration length : {20, -20'000}) {
    const AbsoluteTime start = UpTime();
    EXPECT_EQ(kMPTimeoutErr, MPWaitOnQueue(queue.id, nullptr, nullptr, nullptr, length));
    const Duration took = AbsoluteDeltaToDuration(UpTime(), start);
    EXPECT_LE(took, -20'000);
  }
}

}  // namespace
