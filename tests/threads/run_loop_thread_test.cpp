#include "threads/std_mp_run_loop_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tests/support/few_descriptors.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/rounds.h"
#include "tests/threads/bounded.h"

namespace {

struct Thread : VLTStdMPRunLoopThread {
  using Base = VLTStdMPRunLoopThread;
  ~Thread() override { FinalizeIfNeeded(0); }
  SInt32 ThreadCreated(SInt32 result) override { return createdResult + result; }
  SInt32 Quantum() const { return rrQuantum; }
  bool Runs() const { return HasTask(); }
  bool IsLocked(SInt32 lock) const { return locks.IsLockAcquired(lock); }
  MPEventID EventGroup() const { return eventGroup; }
  SInt32 StartThread() override { return startResult != 0 ? startResult : Base::StartThread(); }
  SInt32 Run(const std::function<SInt32()>& body) {
    return CallSynchronous(
        [](void* a, void*) { return (*static_cast<const std::function<SInt32()>*>(a))(); },
        const_cast<std::function<SInt32()>*>(&body), nullptr, 0);
  }
  SInt32 createdResult = 0;
  SInt32 startResult = 0;
};

SInt32 Add(void* a, void* b) {
  return static_cast<SInt32>(reinterpret_cast<intptr_t>(a) + reinterpret_cast<intptr_t>(b));
}
void* Number(intptr_t number) { return reinterpret_cast<void*>(number); }

TEST(RunLoopThread, ACallReturnsItsResultAndZeroForOneFromOutside) {
  Thread thread;
  EXPECT_EQ(paramErr, thread.CallSynchronous(nullptr, nullptr, nullptr, 0));
  const std::tuple<SInt32, SInt32> rows[] = {{0, 0}, {1, 0}, {2, 2}, {INT32_MIN, INT32_MIN}};
  for (const auto& [result, fromOutside] : rows) {
    EXPECT_EQ(fromOutside, thread.CallSynchronous(Add, Number(result), nullptr, 0));
    // On the thread itself: run directly, 1 included.
    SInt32 direct = 99;
    EXPECT_EQ(0, thread.Run([&] {
      EXPECT_TRUE(thread.IsCurrentThread());
      direct = thread.CallSynchronous(Add, Number(result), nullptr, 0);
      return 0;
    }));
    EXPECT_EQ(result, direct);
  }
}

TEST(RunLoopThread, GivesItsPortHandleAndLoop) {
  Thread thread;
  mach_port_t port = MACH_PORT_NULL;
  pthread_t handle = {};
  CFRunLoopRef loop = nullptr;
  EXPECT_EQ(0, thread.GetCFRunLoop(loop));
  EXPECT_EQ(0, thread.GetMachThread(port));
  EXPECT_EQ(0, thread.GetPThread(handle));
  EXPECT_EQ(0, thread.Run([&] {
    EXPECT_EQ(mach_thread_self(), port);
    EXPECT_NE(0, pthread_equal(pthread_self(), handle));
    EXPECT_EQ(CFRunLoopGetCurrent(), loop);
    return 0;
  }));
  EXPECT_EQ(0, thread.StopThread());
  EXPECT_EQ(0, thread.RemoveSource(nullptr, kCFRunLoopDefaultMode));  // also without a loop
  EXPECT_FALSE(thread.Runs());
}

TEST(RunLoopThread, AThreadThatGivesUpAtItsStartReturnsItsErrorAndCanBeStartedLater) {
  WithinTime([] {
    Thread thread;
    thread.createdResult = -5;
    for (int i = 0; i < 200; i++) EXPECT_EQ(-5, thread.CallSynchronous(Add, nullptr, nullptr, 0));
    thread.createdResult = 0;
    EXPECT_EQ(4, thread.CallSynchronous(Add, Number(1), Number(3), 0));
  });
}

TEST(RunLoopThread, TheSmallestQuantumWins) {
  Thread thread;
  const std::tuple<SInt32, SInt32> rows[] = {{0, 0}, {5, 5},   {10, 5}, {3, 3},
                                             {0, 0}, {-2, -2}, {0, -2}};
  for (const auto& [asked, set] : rows) {
    EXPECT_EQ(0, thread.SetMaxRRPolicy(asked));
    EXPECT_EQ(set, thread.Quantum()) << asked;
  }
  mach_port_t port = MACH_PORT_NULL;
  EXPECT_EQ(0, thread.GetMachThread(port));
  policy_rr_info_data_t info = {};
  mach_msg_type_number_t count = POLICY_RR_INFO_COUNT;
  EXPECT_EQ(0, thread_info(port, THREAD_SCHED_RR_INFO, &info.max_priority, &count));
  EXPECT_EQ(info.max_priority, info.base_priority);
  EXPECT_EQ(-2, info.quantum);
}

TEST(RunLoopThread, ACallWhoseStartFailsLeavesNothingPending) {
  Thread thread;
  thread.startResult = -7;
  EXPECT_EQ(-7, thread.CallSynchronous(Add, Number(1), Number(3), 0));
  EXPECT_FALSE(thread.IsLocked(kVLTThreadStopLock));
  thread.startResult = 0;
  EXPECT_EQ(9, thread.CallSynchronous(Add, Number(2), Number(7), 0));
}

// Meant: the result of the policy hides that of AddSource, because callers rely on it.
TEST(RunLoopThread, TheResultOfThePolicyHidesAddSources) {
  mach_msg_type_number_t count = POLICY_RR_INFO_COUNT;
  policy_rr_info_data_t info = {};
  const SInt32 refused =
      thread_info(MACH_PORT_NULL, THREAD_SCHED_RR_INFO, &info.max_priority, &count);
  ASSERT_NE(0, refused);
  Thread thread;
  thread.startResult = -7;
  EXPECT_EQ(-7, thread.AddPrioritySource(nullptr, kCFRunLoopDefaultMode, 0));
  EXPECT_EQ(refused, thread.AddPrioritySource(nullptr, kCFRunLoopDefaultMode, 3));
}

// Meant: lock 4 is released first, so the event group stays, because callers rely on it.
TEST(RunLoopThread, FinalizeLeavesTheEventGroup) {
  Thread thread;
  EXPECT_EQ(0, thread.StartThread());
  const MPEventID group = thread.EventGroup();
  EXPECT_EQ(0, thread.FinalizeIfNeeded(0));
  EXPECT_FALSE(thread.IsLocked(kVLTThreadEventLock));
  EXPECT_EQ(noErr, MPDeleteEvent(group));
}

TEST(RunLoopThread, ThousandsOfStartsAndStopsLoseNoCallAndNoDescriptor) {
  OpenDescriptorCheck noLeaks;
  int calls = 0, expectedCalls = 0;
  WithinTime([&] {
    Thread thread;
    for (Rounds rounds(10'000); rounds.Next();) {
      if (rounds.Count() % 2 != 0) {
        ASSERT_EQ(0, thread.StartThread());
      } else {
        expectedCalls++;
        ASSERT_EQ(3, thread.Run([&] { return calls++, 3; }));
      }
      ASSERT_EQ(0, thread.StopThread());
      ASSERT_FALSE(thread.Runs());
    }
    // The last end: then the last thread's descriptors are gone.
    ASSERT_EQ(0, thread.StartThread());
    ASSERT_EQ(0, thread.StopThreadAsync());
    while (!thread.IsThreadTerminated()) {
      void* taken[3] = {};
      ASSERT_EQ(0, thread.WaitOnThreadNotification(&taken[0], &taken[1], &taken[2], 60'000));
    }
  });
  EXPECT_EQ(expectedCalls, calls);  // a stop runs no call again
}

TEST(RunLoopThread, ACallThatIsPendingAtTheStopIsServed) {
  Thread thread;
  std::atomic<int> served{0};
  for (int round = 0; round < 300; round++) {
    std::atomic<bool> isInside{false}, mayLeave{false};
    InThreads(3, [&](int number) {
      if (number == 0) {
        EXPECT_EQ(8, thread.Run([&] {
          isInside = true;
          while (!mayLeave) MPYield();
          return served++, 8;
        }));
        return;
      }
      while (!isInside) MPYield();
      if (number == 1) {
        EXPECT_EQ(9, thread.Run([&] { return served++, 9; }));
      } else {
        EXPECT_EQ(0, thread.StopThreadAsync());
        mayLeave = true;
      }
    });
    WithinTime([&] { EXPECT_EQ(0, thread.StopThread()); });
  }
  EXPECT_EQ(600, served);
}

// Callers start it again and again while others stop it at any time of its start and of a call.
TEST(RunLoopThread, EachCallRunsOnceWhileOthersStopTheThread) {
  Thread thread;
  std::atomic<int> asked{0}, served{0}, left{4};
  InThreads(6, [&](int number) {
    if (number >= 4) {
      while (left > 0) EXPECT_EQ(0, thread.StopThread());
      return;
    }
    for (Rounds rounds(1000); rounds.Next();) {
      asked++;
      EXPECT_EQ(number + 2, thread.Run([&] { return served++, number + 2; }));
    }
    left--;
  });
  EXPECT_EQ(asked, served);
}

struct Source {
  explicit Source(std::function<void()> body) : run(std::move(body)) {
    CFRunLoopSourceContext context = {};
    context.info = this;
    context.perform = [](void* info) { static_cast<Source*>(info)->run(); };
    ref = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
  }
  ~Source() { CFRelease(ref); }
  std::function<void()> run;
  CFRunLoopSourceRef ref;
};

TEST(RunLoopThread, AnInvalidatedSourceDoesNotFireAfterTheNextCall) {
  Thread thread;
  CFRunLoopRef loop = nullptr;
  ASSERT_EQ(0, thread.GetCFRunLoop(loop));
  std::atomic<int> fired{0};
  InThreads(4, [&](int number) {
    for (int round = 0; round < 300; round++) {
      const int before = fired;
      auto isGone = std::make_unique<std::atomic<bool>>(false);
      auto source = std::make_unique<Source>([&fired, gone = isGone.get()] {
        EXPECT_FALSE(*gone);
        fired++;
      });
      EXPECT_EQ(0, number % 2 == 0 ? thread.AddSource(source->ref, kCFRunLoopDefaultMode)
                                   : thread.AddPrioritySource(source->ref, kCFRunLoopCommonModes,
                                                              number + round));
      CFRunLoopSourceSignal(source->ref);
      CFRunLoopWakeUp(loop);
      while (round % 3 == 0 && fired == before) MPYield();
      CFRunLoopSourceSignal(source->ref);
      if (round % 2 == 0) {
        EXPECT_EQ(0, thread.RemoveSource(source->ref, number % 2 == 0 ? kCFRunLoopDefaultMode
                                                                      : kCFRunLoopCommonModes));
      }
      CFRunLoopSourceInvalidate(source->ref);
      EXPECT_EQ(4, thread.CallSynchronous(Add, Number(4), nullptr, 0));
      *isGone = true;
      source.reset();
    }
  });
  WithinTime([&] { EXPECT_EQ(0, thread.StopThread()); });
  EXPECT_GE(fired, 100);
}

TEST(RunLoopThread, AStopDuringANestedRunEndsTheThread) {
  enum class From { kCall, kSource, kTimer };
  for (const From from : {From::kCall, From::kSource, From::kTimer}) {
    for (const int nestedRuns : {1, 3}) {
      SCOPED_TRACE(static_cast<int>(from) * 10 + nestedRuns);
      Thread thread;
      std::atomic<bool> isInside{false};
      std::function<void()> nest = [&] {
        isInside = true;
        for (int i = 0; i < nestedRuns; i++) {
          CFRunLoopRunInMode(kCFRunLoopDefaultMode, i == 0 ? 60 : 0.01, i % 2 != 0);
        }
      };
      Source source(nest);
      CFRunLoopTimerRef timer = nullptr;
      std::thread caller;
      if (from == From::kCall) {
        caller = std::thread([&] { EXPECT_EQ(5, thread.Run([&] { return nest(), 5; })); });
      } else if (from == From::kSource) {
        CFRunLoopSourceSignal(source.ref);
        EXPECT_EQ(0, thread.AddSource(source.ref, kCFRunLoopDefaultMode));
      } else {
        CFRunLoopRef loop = nullptr;
        ASSERT_EQ(0, thread.GetCFRunLoop(loop));
        CFRunLoopTimerContext context = {};
        context.info = &nest;
        const auto fire = [](CFRunLoopTimerRef, void* info) {
          (*static_cast<std::function<void()>*>(info))();
        };
        timer = CFRunLoopTimerCreate(kCFAllocatorDefault, 0, 0, 0, 0, fire, &context);
        CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
      }
      WithinTime([&] {
        while (!isInside) MPYield();
        EXPECT_EQ(0, thread.StopThread());
      });
      EXPECT_FALSE(thread.Runs());
      if (caller.joinable()) caller.join();
      if (timer != nullptr) CFRelease(timer);
    }
  }
}

TEST(RunLoopThread, ANestedRunThatIgnoresTheStopIsStillServed) {
  Thread thread;
  std::atomic<bool> isInside{false}, hasHappened{false};
  std::atomic<int> stops{0};
  Source event([&] { hasHappened = true; });
  ASSERT_EQ(0, thread.AddSource(event.ref, kCFRunLoopDefaultMode));
  std::thread caller([&] {
    EXPECT_EQ(5, thread.Run([&] {
      isInside = true;
      while (!hasHappened) {
        stops += CFRunLoopRunInMode(kCFRunLoopDefaultMode, 60, true) == kCFRunLoopRunStopped;
      }
      return 5;
    }));
  });
  WithinTime([&] {
    while (!isInside) MPYield();
    EXPECT_EQ(0, thread.StopThreadAsync());
    while (stops < 3) MPYield();
    CFRunLoopSourceSignal(event.ref);
    EXPECT_EQ(0, thread.StopThread());
    caller.join();
  });
}

TEST(RunLoopThread, ASourceAddedAfterAStopIsServedByTheNextRun) {
  Thread thread;
  for (int round = 0; round < 100; round++) {
    std::atomic<int> fired{0};
    Source source([&] { fired++; });
    ASSERT_EQ(0, thread.StartThread());
    EXPECT_EQ(0, thread.StopThreadAsync());
    WithinTime([&] {
      CFRunLoopSourceSignal(source.ref);
      EXPECT_EQ(0, thread.AddSource(source.ref, kCFRunLoopDefaultMode));
      while (fired == 0) MPYield();
    });
    CFRunLoopSourceInvalidate(source.ref);
  }
}

TEST(RunLoopThread, ACallThatEndsItsTaskIsAnsweredAndTheNextOneServed) {
  OpenDescriptorCheck noLeaks;
  Thread thread;
  WithinTime([&] {
    for (int round = 0; round < 50; round++) {
      EXPECT_EQ(kMPTaskAbortedErr, thread.Run([]() -> SInt32 {
        MPExit(5);
        return 3;
      }));
      EXPECT_EQ(9, thread.CallSynchronous(Add, Number(2), Number(7), 0));
    }
    EXPECT_EQ(0, thread.StopThread());
  });
}

// With few file descriptors left, a source is either refused or served.
TEST(RunLoopThread, WithoutFileDescriptorsASourceIsRefused) {
  int refused = 0, served = 0;
  for (const CFStringRef mode : {kCFRunLoopDefaultMode, CFSTR("another mode")}) {
    for (size_t left = 0; left < 6; left++) {
      SCOPED_TRACE(left);
      const FewDescriptors few(left);
      Thread thread;
      std::atomic<int> fired{0};
      Source source([&] { fired++; });
      CFRunLoopSourceSignal(source.ref);
      if (thread.AddSource(source.ref, mode) != 0) {
        refused++;
        continue;
      }
      served++;
      EXPECT_EQ(0, thread.Run([mode] { return CFRunLoopRunInMode(mode, 0, false), 0; }));
      EXPECT_GE(fired, 1);
    }
  }
  EXPECT_GE(refused, 4);
  EXPECT_GE(served, 4);
}

}  // namespace
