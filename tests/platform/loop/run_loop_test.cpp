#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/platform/objects/support.h"

namespace {

using namespace std::chrono_literals;

constexpr CFTimeInterval kLong = 20;  // a failing test's end, never waited for

CFRunLoopRef Current() { return CFRunLoopGetCurrent(); }

// A source that runs a function.
struct Action {
  explicit Action(std::function<void()> body = {}, CFIndex order = 0) : run(std::move(body)) {
    CFRunLoopSourceContext context = {};
    context.info = this;
    context.schedule = [](void* info, CFRunLoopRef, CFStringRef) {
      static_cast<Action*>(info)->scheduled++;
    };
    context.cancel = [](void* info, CFRunLoopRef, CFStringRef) {
      static_cast<Action*>(info)->cancelled++;
    };
    context.perform = [](void* info) {
      auto* self = static_cast<Action*>(info);
      self->performed++;
      if (self->run) self->run();
    };
    source = CFRunLoopSourceCreate(kCFAllocatorDefault, order, &context);
  }
  ~Action() { CFRunLoopSourceInvalidate(source); }

  void Add() { CFRunLoopAddSource(Current(), source, kCFRunLoopDefaultMode); }
  void Signal() { CFRunLoopSourceSignal(source); }

  std::function<void()> run;
  OwnedRef<CFRunLoopSourceRef> source;
  std::atomic<int> performed{0};
  std::atomic<int> scheduled{0};
  std::atomic<int> cancelled{0};
};

TEST(RunLoop, NullAndForeignObjectsAreNeutral) {
  auto* wrong = reinterpret_cast<CFRunLoopSourceRef>(const_cast<__CFString*>(CFSTR("a string")));
  for (const CFRunLoopSourceRef none : {CFRunLoopSourceRef{}, wrong}) {
    CFRunLoopAddSource(Current(), none, kCFRunLoopDefaultMode);
    CFRunLoopSourceSignal(none);
    CFRunLoopSourceInvalidate(none);
    EXPECT_FALSE(CFRunLoopSourceIsValid(none));
  }
  EXPECT_EQ(kCFRunLoopRunFinished, CFRunLoopRunInMode(nullptr, kLong, false));
}

TEST(RunLoop, StopBeforeTheRunIsKept) {
  Action action;
  action.Add();
  action.Signal();
  CFRunLoopStop(Current());
  EXPECT_EQ(kCFRunLoopRunStopped, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
  EXPECT_EQ(0, action.performed);
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false));
  EXPECT_EQ(1, action.performed);
}

TEST(RunLoop, SourcesFireByOrderOncePerPass) {
  std::string log;
  Action last([&] { log += "3"; }, 3), first([&] { log += "1"; }, 1),
      middle([&] { log += "2"; }, 2);
  for (Action* action : {&last, &first, &middle}) {
    action->Add();
    action->Add();
    action->Signal();
    action->Signal();
  }
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false));
  EXPECT_EQ("123", log);
  EXPECT_EQ(1, first.scheduled);
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false));
  EXPECT_EQ("123", log);
}

TEST(RunLoop, RemovedAndInvalidatedSourcesDoNotFire) {
  Action victim({}, 2), survivor({}, 3), killer({}, 1);
  killer.run = [&] { CFRunLoopSourceInvalidate(victim.source); };
  for (Action* action : {&victim, &survivor, &killer}) {
    action->Add();
    action->Signal();
  }
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  EXPECT_EQ(0, victim.performed);
  EXPECT_EQ(1, victim.cancelled);
  EXPECT_EQ(1, survivor.performed);
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), victim.source, kCFRunLoopDefaultMode));

  CFRunLoopAddSource(Current(), victim.source, kCFRunLoopDefaultMode);
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), victim.source, kCFRunLoopDefaultMode));
  survivor.Signal();
  CFRunLoopRemoveSource(Current(), survivor.source, kCFRunLoopDefaultMode);
  EXPECT_EQ(1, survivor.cancelled);
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  EXPECT_EQ(1, survivor.performed);
}

TEST(RunLoop, ANestedRunEndsAlone) {
  std::string log;
  Action inner([&] {
    log += "i";
    CFRunLoopStop(Current());
  });
  Action outer([&] {
    log += "o";
    inner.Signal();
    EXPECT_EQ(kCFRunLoopRunStopped, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
    log += "O";
  });
  outer.Add();
  inner.Add();
  outer.Signal();
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, false));
  EXPECT_EQ("oiO", log);
}

TEST(RunLoop, ModesAreServedApart) {
  const CFStringRef mode = CFSTR("a mode of one's own");
  Action other, common;
  CFRunLoopAddSource(Current(), other.source, mode);
  CFRunLoopAddSource(Current(), common.source, kCFRunLoopCommonModes);
  other.Signal();
  common.Signal();
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  EXPECT_EQ(0, other.performed);
  EXPECT_EQ(1, common.performed);
  CFRunLoopAddCommonMode(Current(), mode);
  common.Signal();
  CFRunLoopRunInMode(mode, 0, false);
  EXPECT_EQ(1, other.performed);
  EXPECT_EQ(2, common.performed);
  CFRunLoopRemoveSource(Current(), common.source, kCFRunLoopCommonModes);
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), common.source, mode));
}

TEST(RunLoop, AnExceptionPassesThroughAndTheLoopGoesOn) {
  Action thrower([] { throw std::runtime_error("from a callout"); });
  Action other;
  thrower.Add();
  other.Add();
  thrower.Signal();
  EXPECT_THROW(CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false), std::runtime_error);
  other.Signal();
  EXPECT_EQ(kCFRunLoopRunHandledSource, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, true));
  EXPECT_EQ(1, other.performed);
}

// 2000 signals from another thread, each awaited: a lost wake-up would hang the pair.
TEST(RunLoop, WakesFromAnotherThread) {
  constexpr int kRounds = 2000;
  std::promise<CFRunLoopRef> started;
  Action action;
  std::atomic<int> seen{0};
  action.run = [&] {
    seen++;
    seen.notify_one();
    if (seen == kRounds) CFRunLoopStop(Current());
  };
  std::thread thread([&] {
    action.Add();
    started.set_value(Current());
    EXPECT_EQ(kCFRunLoopRunStopped, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
  });
  const CFRunLoopRef loop = started.get_future().get();
  for (int i = 0; i < kRounds; i++) {
    action.Signal();
    CFRunLoopWakeUp(loop);
    seen.wait(i);
  }
  thread.join();
  EXPECT_EQ(1, action.cancelled);  // the thread's end took it out
}

TEST(RunLoop, TimersFireInTimeAndKeepTheirRhythm) {
  int fired = 0;
  CFRunLoopTimerContext context = {};
  context.info = &fired;
  const auto count = [](CFRunLoopTimerRef timer, void* info) {
    if (++*static_cast<int*>(info) == 5) CFRunLoopTimerInvalidate(timer);
  };
  const auto start = std::chrono::steady_clock::now();
  const OwnedRef<CFRunLoopTimerRef> timer(CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + 0.02, 0.01, 0, 0, count, &context));
  CFRunLoopAddTimer(Current(), timer, kCFRunLoopDefaultMode);
  EXPECT_EQ(kCFRunLoopRunFinished, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
  EXPECT_EQ(5, fired);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 59ms);
}

TEST(RunLoop, TheTimeRunsOut) {
  Action idle;
  idle.Add();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, false));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

}  // namespace
