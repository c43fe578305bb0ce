#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/rounds.h"
#include "tests/support/test_process.h"
#include "tests/threads/bounded.h"
#include "threads/std_mp_thread.h"

namespace {

constexpr SInt32 kLong = 60'000;

void* Code(OSType code) { return reinterpret_cast<void*>(uintptr_t{code}); }

// A worker whose task is a function.
struct Worker : VLTStdMPThread {
  explicit Worker(std::function<SInt32(Worker&)> body = {}, UInt32 stackSize = 0)
      : VLTStdMPThread(nullptr, nullptr, stackSize, 0), body(std::move(body)) {}
  ~Worker() override { FinalizeIfNeeded(0); }

  SInt32 DoThreadTask() override { return body ? body(*this) : 0; }
  SInt32 DoThreadNotification(void*& tag, void*& kind, void*& value, SInt32 error) override {
    if (tag == Code(kMine)) received = kind;
    return VLTStdMPThread::DoThreadNotification(tag, kind, value, error);
  }
  SInt32 DoAdminNotification(void* kind, void* value) override {
    return missesStart && kind == Code(startKind)
               ? 0
               : VLTStdMPThread::DoAdminNotification(kind, value);
  }
  SInt32 NotifyThreadTerminated(SInt32 result) override {
    const SInt32 err = VLTStdMPThread::NotifyThreadTerminated(result);
    if (terminated) terminated(*this);
    return err;
  }
  SInt32 NotifyThreadCreated(SInt32 result) override {
    if (created) created(*this);
    return VLTStdMPThread::NotifyThreadCreated(result);
  }
  SInt32 DoThreadEvent(UInt32 flags) override { return static_cast<SInt32>(flags) + 100; }

  bool StopRequested() const { return locks.IsLockAcquired(kVLTThreadStopLock); }
  bool OwnsQueue() const { return locks.IsLockAcquired(kVLTThreadQueueLock); }
  SInt32 Status() const { return status; }
  // Waits until the end message was processed: then the thread has given everything back.
  void TakeEnd() {
    while (!IsThreadTerminated()) {
      void* taken[3] = {};
      ASSERT_EQ(0, WaitOnThreadNotification(&taken[0], &taken[1], &taken[2], kLong));
    }
  }

  static constexpr OSType kMine = FourCC('m', 'i', 'n', 'e');
  std::function<SInt32(Worker&)> body;
  std::function<void(Worker&)> created, terminated;
  std::atomic<void*> received{nullptr};
  bool missesStart = false;
};

TEST(Worker, ReportsTheResultOfEachRun) {
  for (const SInt32 result : {0, 1, INT32_MIN}) {
    SCOPED_TRACE(result);
    Worker worker([result](Worker&) { return result; });
    for (int run = 0; run < 3; run++) {
      EXPECT_EQ(0, worker.StartThread());
      EXPECT_TRUE(worker.IsThreadCreated());
      EXPECT_EQ(0, worker.WaitForCompletion(kLong));
      EXPECT_EQ(0, worker.StopThread());
    }
    EXPECT_EQ(0, worker.StartThread());
    worker.TakeEnd();
    EXPECT_EQ(result, worker.Status());
  }
}

TEST(Worker, ATaskThatEndsBeforeItsStartIsSeen) {
  Worker worker;
  worker.missesStart = true;
  for (int i = 0; i < 3; i++) EXPECT_EQ(kMPTaskAbortedErr, worker.StartThread());
  EXPECT_TRUE(worker.IsThreadTerminated());
  EXPECT_TRUE(worker.OwnsQueue());
}

TEST(Worker, WaitsForARunningTaskTimeOut) {
  MPSemaphoreID go = kInvalidID;
  ASSERT_EQ(noErr, MPCreateSemaphore(1, 0, &go));
  Worker worker([go](Worker&) { return MPWaitOnSemaphore(go, kDurationForever); });
  ASSERT_EQ(0, worker.StartThread());
  EXPECT_EQ(0, worker.StartThread());  // it runs already
  for (const SInt32 timeout : {0, -5000}) {
    EXPECT_EQ(kMPTimeoutErr, worker.WaitForCompletion(timeout));
    EXPECT_EQ(kMPTimeoutErr, worker.WaitOnThreadNotification(nullptr, nullptr, nullptr, timeout));
  }
  UInt32 flags = 0;
  EXPECT_EQ(101, worker.WaitForEvent(flags, 0));  // set when the start was reported
  EXPECT_EQ(1u, flags);
  EXPECT_EQ(kMPTimeoutErr, worker.WaitForEvent(flags, 0));
  EXPECT_EQ(noErr, MPSignalSemaphore(go));
  EXPECT_EQ(0, worker.WaitForCompletion(kLong));
  MPDeleteSemaphore(go);
}

TEST(Worker, MessagesReachTheOwnersHandler) {
  Worker worker;
  ASSERT_EQ(0, worker.StartThread());
  ASSERT_EQ(0, worker.StopThread());
  worker.TakeEnd();
  EXPECT_EQ(0, worker.FlushNotifications());
  const auto post = [&worker](OSType tag, OSType kind, SInt32 value) {
    return worker.PostThreadNotification(Code(tag), Code(kind),
                                         reinterpret_cast<void*>(intptr_t{value}));
  };
  constexpr OSType kAdmin = FourCC('n', 'o', 't', 'f');
  constexpr OSType kEnd = FourCC('t', 'e', 'r', 'm');
  void* tag = nullptr;
  void* kind = nullptr;
  void* value = nullptr;
  EXPECT_EQ(0, post(Worker::kMine, 5, -50));
  EXPECT_EQ(0, worker.WaitOnThreadNotification(&tag, &kind, &value, 0));
  EXPECT_EQ(Code(Worker::kMine), tag);
  EXPECT_EQ(Code(5), worker.received);
  EXPECT_EQ(-50, reinterpret_cast<intptr_t>(value));

  EXPECT_EQ(0, post(kAdmin, kEnd, -60));
  EXPECT_EQ(0, worker.WaitOnThreadNotification(nullptr, &kind, &value, 0));
  EXPECT_EQ(-60, worker.Status());
  // Meant: without outputs for kind and value the handler gets null, because handlers rely on it.
  EXPECT_EQ(0, post(kAdmin, kEnd, -61));
  EXPECT_EQ(0, worker.WaitOnThreadNotification(&tag, nullptr, nullptr, 0));
  EXPECT_EQ(-60, worker.Status());

  EXPECT_EQ(0, worker.SetNotifyQueueReserve(1));
  EXPECT_EQ(0, post(Worker::kMine, 7, 0));
  EXPECT_EQ(kMPInsufficientResourcesErr, post(Worker::kMine, 8, 0));
  EXPECT_EQ(0, worker.FlushNotifications());
  EXPECT_EQ(Code(7), worker.received);
}

TEST(Worker, TheEndOfARunIsNotMistakenForTheEndOfTheNext) {
  OpenDescriptorCheck noLeaks;
  int runs = 0;
  WithinTime([&] {
    Worker worker([&](Worker&) { return ++runs; });
    Rounds rounds(10'000);
    while (rounds.Next()) {
      const int i = rounds.Count();
      ASSERT_EQ(0, worker.StartThread()) << i;
      ASSERT_EQ(0, i % 2 != 0 ? worker.StopThread() : worker.WaitForCompletion(kDurationForever));
    }
    ASSERT_EQ(0, worker.StartThread());
    worker.TakeEnd();
    EXPECT_EQ(rounds.Count() + 1, worker.Status());
    EXPECT_EQ(rounds.Count() + 1, runs);
  });
}

TEST(Worker, MayBeDestroyedRightAfterItsCompletion) {
  std::atomic<int> runs{0}, expectedRuns{0};
  WithinTime([&] {
    for (Rounds rounds(2000); rounds.Next();) {
      expectedRuns++;
      auto worker = std::make_unique<Worker>([&](Worker&) { return ++runs, 0; });
      ASSERT_EQ(0, worker->StartThread());
      ASSERT_EQ(0, worker->WaitForCompletion(kDurationForever));
    }
  });
  EXPECT_EQ(expectedRuns, runs);
}

// One thread stops the worker until the others have seen a run end, since a start after a stop
// begins a new run.
TEST(Worker, ManyThreadsMayStartAndAwaitIt) {
  std::atomic<int> runs{0};
  for (int round = 0; round < 300; round++) {
    Worker worker([&](Worker& self) {
      runs++;
      while (!self.StopRequested()) MPYield();
      return 0;
    });
    std::atomic<int> awaiting{4};
    InThreads(5, [&](int number) {
      EXPECT_EQ(0, worker.StartThread());
      if (number == 0) {
        do EXPECT_EQ(0, worker.StopThread());
        while (awaiting > 0);
      } else {
        EXPECT_EQ(0, worker.WaitForCompletion(kLong));
        awaiting--;
      }
    });
    EXPECT_EQ(0, worker.WaitForCompletion(kLong));
  }
  EXPECT_GE(runs, 300);
}

TEST(Worker, MayBeStartedAgainByTheHandlerOfItsEnd) {
  std::atomic<int> runs{0};
  WithinTime([&] {
    Worker worker([&](Worker&) { return ++runs; });
    worker.terminated = [](Worker& self) {
      if (self.Status() >= 5) return;
      EXPECT_EQ(0, self.StartThread());
    };
    EXPECT_EQ(0, worker.StartThread());
    while (runs < 5 || !worker.IsThreadTerminated()) worker.TakeEnd();
    worker.terminated = nullptr;
  });
  EXPECT_EQ(5, runs);
}

TEST(Worker, MayBeStartedByTheHandlerOfItsEndAndAnotherThreadAtOnce) {
  std::atomic<int> runs{0}, restarts{0};
  Worker worker([&](Worker&) { return ++runs, 0; });
  worker.terminated = [&](Worker& self) {
    if (restarts++ % 3 == 0) return;
    EXPECT_EQ(0, self.StartThread());
  };
  InThreads(3, [&](int) {
    for (int i = 0; i < 300; i++) {
      EXPECT_EQ(0, worker.StartThread());
      EXPECT_EQ(0, worker.WaitForCompletion(kLong));
    }
  });
  worker.terminated = nullptr;
  EXPECT_GE(runs, 300);
}

// A handler of the start report must not wait for that report.
TEST(Worker, AHandlerOfItsStartFindsItRunning) {
  std::atomic<int> runs{0};
  Worker worker([&](Worker& self) {
    runs++;
    while (!self.StopRequested()) MPYield();
    return 0;
  });
  worker.created = [](Worker& self) { EXPECT_EQ(0, self.StartThread()); };
  WithinTime([&] {
    EXPECT_EQ(0, worker.StartThread());
    EXPECT_EQ(0, worker.StopThread());
  });
  EXPECT_EQ(1, runs);
}

TEST(Worker, WaitersAtOnceWaitSideBySide) {
  Worker worker;
  ASSERT_EQ(0, worker.StartThread());
  ASSERT_EQ(0, worker.StopThread());
  worker.TakeEnd();
  // If they waited one after the other, the last would end after 1500 ms.
  EXPECT_TRUE(IsDoneWithin(std::chrono::milliseconds(950), [&worker] {
    InThreads(3, [&worker](int) {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_EQ(kMPTimeoutErr, worker.WaitOnThreadNotification(nullptr, nullptr, nullptr, 500));
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    });
  }));
}

}  // namespace
