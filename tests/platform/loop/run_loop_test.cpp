#include <mach/mach.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/platform/events/support.h"
#include "tests/platform/objects/support.h"
#include "tests/support/repeated_signals.h"
#include "tests/support/rounds.h"
#include "tests/threads/bounded.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr CFTimeInterval kLong = 20;  // ends a failing test

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

// A timer that runs a function, first after `wait` seconds. Added by hand.
struct Timer {
  Timer(double wait, double interval, std::function<void()> body) : run(std::move(body)) {
    CFRunLoopTimerContext context = {};
    context.info = this;
    made = Clock::now();
    timer = CFRunLoopTimerCreate(
        kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + wait, interval, 0, 0,
        [](CFRunLoopTimerRef, void* info) { static_cast<Timer*>(info)->run(); }, &context);
    took = Clock::now() - made;
  }
  ~Timer() { CFRunLoopTimerInvalidate(timer); }
  void Add() { CFRunLoopAddTimer(Current(), timer, kCFRunLoopDefaultMode); }

  std::function<void()> run;
  Clock::time_point made;  // just before
  Milliseconds took;       // to make it: how exactly its times are known
  OwnedRef<CFRunLoopTimerRef> timer;
};

void SpinUntil(Clock::time_point end) {
  while (Clock::now() < end) {
  }
}

// A port of this process on the current loop. Each message adds the port's letter to the log.
struct LetterPort {
  LetterPort(std::string* toLog, char itsLetter) : log(toLog), letter(itsLetter) {
    CFMachPortContext context = {};
    context.info = this;
    port = CFMachPortCreate(
        kCFAllocatorDefault,
        [](CFMachPortRef, void*, CFIndex, void* info) {
          auto* self = static_cast<LetterPort*>(info);
          *self->log += self->letter;
        },
        &context, nullptr);
    source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
    CFRunLoopAddSource(Current(), source, kCFRunLoopDefaultMode);
  }
  ~LetterPort() { CFMachPortInvalidate(port); }

  void Send(int count) {
    StDesc address, event;
    Make(Code(typeMachPort, CFMachPortGetPort(port)), &address);
    ASSERT_EQ(0, AECreateAppleEvent(FourCC('t', 'e', 's', 't'), FourCC('t', 'e', 's', 't'),
                                    &address, kAutoGenerateReturnID, kAnyTransactionID, &event));
    for (int i = 0; i < count; i++) {
      ASSERT_EQ(0, AESendMessage(&event, nullptr, kAENoReply, kAEDefaultTimeout));
    }
  }

  std::string* log;
  char letter;
  OwnedRef<CFMachPortRef> port;
  OwnedRef<CFRunLoopSourceRef> source;
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

TEST(RunLoop, SourcesFireByOrderThenAgeOncePerPass) {
  std::string log;
  Action last([&] { log += "3"; }, 3), first([&] { log += "1"; }, 1),
      middle([&] { log += "2"; }, 2), equal([&] { log += "="; }, 2);
  for (Action* action : {&last, &first, &middle, &equal}) {
    action->Add();
    action->Add();
    action->Signal();
    action->Signal();
  }
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false));
  EXPECT_EQ("12=3", log);
  EXPECT_EQ(1, first.scheduled);
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false));
  EXPECT_EQ("12=3", log);
}

// A callout that takes another source out of the loop, or stops the run, is obeyed at once,
// although that source has been signalled.
TEST(RunLoop, ACalloutStopsTheNextOneOfItsRound) {
  const std::tuple<const char*, std::function<void(Action&)>, bool> rows[] = {
      {"invalidates", [](Action& victim) { CFRunLoopSourceInvalidate(victim.source); }, true},
      {"removes",
       [](Action& victim) {
         CFRunLoopRemoveSource(Current(), victim.source, kCFRunLoopDefaultMode);
       },
       true},
      {"stops", [](Action&) { CFRunLoopStop(Current()); }, false},
  };
  for (const auto& [way, act, leaves] : rows) {
    SCOPED_TRACE(way);
    Action victim({}, 2), survivor({}, 3), killer({}, 1);
    killer.run = [&] { act(victim); };
    for (Action* action : {&victim, &survivor, &killer}) {
      action->Add();
      action->Signal();
    }
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
    EXPECT_EQ(0, victim.performed);
    EXPECT_EQ(leaves, victim.cancelled == 1);
    EXPECT_EQ(leaves ? 1 : 0, survivor.performed);
    EXPECT_EQ(!leaves, CFRunLoopContainsSource(Current(), victim.source, kCFRunLoopDefaultMode));
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);  // what a stop left signalled stays so
    EXPECT_EQ(leaves ? 0 : 1, victim.performed);
    EXPECT_EQ(1, survivor.performed);
  }
}

TEST(RunLoop, SourcesThatHaveLeftDoNotFire) {
  Action dead, removed;
  CFRunLoopSourceInvalidate(dead.source);
  dead.Add();
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), dead.source, kCFRunLoopDefaultMode));
  removed.Add();
  removed.Signal();
  CFRunLoopRemoveSource(Current(), removed.source, kCFRunLoopDefaultMode);
  EXPECT_EQ(1, removed.cancelled);
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  EXPECT_EQ(0, removed.performed);
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

TEST(RunLoop, AModeServesItsOwnAndTheCommonSourcesAndTimersOnly) {
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
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), common.source, kCFRunLoopDefaultMode));
  EXPECT_EQ(2, common.cancelled);

  Timer everywhere(1000, 0, [] {});
  CFRunLoopAddTimer(Current(), everywhere.timer, kCFRunLoopCommonModes);
  const CFStringRef late = CFSTR("a mode that becomes common later");
  CFRunLoopAddCommonMode(Current(), late);
  for (const CFStringRef each : {kCFRunLoopDefaultMode, mode, late, kCFRunLoopCommonModes}) {
    EXPECT_TRUE(CFRunLoopContainsTimer(Current(), everywhere.timer, each));
  }
  CFRunLoopRemoveTimer(Current(), everywhere.timer, kCFRunLoopCommonModes);
  for (const CFStringRef each : {kCFRunLoopDefaultMode, mode, late, kCFRunLoopCommonModes}) {
    EXPECT_FALSE(CFRunLoopContainsTimer(Current(), everywhere.timer, each));
  }
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

// Signals from another thread, each awaited: a lost wake-up would hang the pair.
TEST(RunLoop, WakesForEachSignalOfAnotherThread) {
  std::promise<CFRunLoopRef> started;
  Action action;
  std::atomic<int> seen{0};
  std::atomic<bool> isLast{false};
  action.run = [&] {
    if (isLast) CFRunLoopStop(Current());
    seen++;
    seen.notify_one();
  };
  std::thread thread([&] {
    action.Add();
    started.set_value(Current());
    EXPECT_EQ(kCFRunLoopRunStopped, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
  });
  const CFRunLoopRef loop = started.get_future().get();
  const auto signal = [&] {
    const int before = seen;
    action.Signal();
    CFRunLoopWakeUp(loop);
    seen.wait(before);
  };
  for (Rounds rounds(2000); rounds.Next();) signal();
  isLast = true;
  signal();
  thread.join();
  EXPECT_EQ(1, action.cancelled);  // the thread's end took it out
}

TEST(RunLoop, ATimerNeverFiresEarlyAndEndsTheRunWithItsEnd) {
  int fired = 0;
  Timer timer(0.02, 0.01, {});
  timer.run = [&] {
    EXPECT_GE(Clock::now() - timer.made, 20ms + fired * 10ms);
    if (++fired == 5) CFRunLoopTimerInvalidate(timer.timer);
  };
  timer.Add();
  EXPECT_EQ(kCFRunLoopRunFinished, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
  EXPECT_EQ(5, fired);
}

// A timer that fires late fires next at the next multiple of its interval, not an interval after
// the late call. Another timer, a quarter of an interval after that multiple, shows the difference
// however late everything is.
TEST(RunLoop, ATimerThatWasLateKeepsItsRhythm) {
  constexpr Milliseconds kInterval = 200ms;
  for (int attempt = 0; attempt < 50; attempt++) {
    std::string log;
    Timer beat(0.2, 0.2, {});
    if (beat.took > kInterval / 10) continue;  // its times are not known well enough
    std::unique_ptr<Timer> after;
    beat.run = [&] {
      log += "b";
      if (after != nullptr) return CFRunLoopStop(Current());
      const double passed = Milliseconds(Clock::now() - beat.made) / kInterval;
      const double next = std::floor(passed) + 1.25 - passed;
      after = std::make_unique<Timer>(next * kInterval.count() / 1000, 0, [&] { log += "a"; });
      after->Add();
    };
    beat.Add();
    SpinUntil(beat.made + 310ms);
    EXPECT_EQ(kCFRunLoopRunStopped, CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, false));
    EXPECT_EQ("bb", log);
    return;
  }
  GTEST_SKIP() << "no timer could be made within 20 ms";
}

// The earlier of two due timers may remove, invalidate or (in a nested run) fire the other.
TEST(RunLoop, TimersDueTogetherFireInTurn) {
  const struct {
    const char* text;
    std::function<void(Timer&)> firstDoes;
    const char* log;
  } rows[] = {
      {"nothing", [](Timer&) {}, "12"},
      {"removes",
       [](Timer& other) { CFRunLoopRemoveTimer(Current(), other.timer, kCFRunLoopDefaultMode); },
       "1"},
      {"invalidates", [](Timer& other) { CFRunLoopTimerInvalidate(other.timer); }, "1"},
      {"runs the loop", [](Timer&) { CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false); }, "12"},
      {"stops", [](Timer&) { CFRunLoopStop(Current()); }, "1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::string log;
    Timer first(0.001, 1000, {});
    Timer second(0.005, 1000, [&] { log += "2"; });
    first.run = [&] {
      log += "1";
      row.firstDoes(second);
    };
    second.Add();
    first.Add();
    SpinUntil(Clock::now() + 10ms);
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
    EXPECT_EQ(row.log, log);
  }
}

TEST(RunLoop, PortsAreServedInTurnAndOneMessageEndsAReturningRun) {
  std::string log;
  LetterPort a(&log, 'a'), b(&log, 'b'), c(&log, 'c');
  Action action([&] { log += "+"; });
  action.Add();
  for (LetterPort* port : {&a, &b, &c}) port->Send(3);
  action.Signal();
  const auto one = [] { return CFRunLoopRunInMode(kCFRunLoopDefaultMode, kLong, true); };
  EXPECT_EQ(kCFRunLoopRunHandledSource, one());
  EXPECT_EQ("+", log);
  EXPECT_EQ(kCFRunLoopRunHandledSource, one());
  EXPECT_EQ("+a", log);
  EXPECT_EQ(kCFRunLoopRunHandledSource, one());
  EXPECT_EQ("+ab", log);
  CFRunLoopRemoveSource(Current(), c.source, kCFRunLoopDefaultMode);
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, false));
  EXPECT_EQ("+ababab", log);
}

TEST(RunLoop, InvalidSourcesAndTimersAreReleased) {
  static int sReleased = 0;
  sReleased = 0;
  CFRunLoopTimerContext context = {};
  context.release = [](const void*) {
    sReleased++;
    const Action other;
    CFRunLoopAddSource(Current(), other.source, kCFRunLoopDefaultMode);  // takes the loop's mutex
  };
  for (const CFStringRef mode : {kCFRunLoopDefaultMode, kCFRunLoopCommonModes}) {
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreate(kCFAllocatorDefault, 0, 0, 0, 0, nullptr, &context);
    CFRunLoopAddTimer(Current(), timer, mode);
    CFRelease(timer);
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  }
  EXPECT_EQ(2, sReleased);

  Action common;
  CFRunLoopAddSource(Current(), common.source, kCFRunLoopCommonModes);
  CFRunLoopSourceInvalidate(common.source);
  EXPECT_EQ(1, CFGetRetainCount(common.source));
  EXPECT_FALSE(CFRunLoopContainsSource(Current(), common.source, kCFRunLoopCommonModes));
}

TEST(RunLoop, AnIdleLoopTakesNoProcessorTime) {
  std::string log;
  const LetterPort port(&log, 'p');
  const Action action;
  Timer later(1000, 0, [] {});
  later.Add();
  rusage before = {}, after = {};
  getrusage(RUSAGE_THREAD, &before);
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.4, false));
  getrusage(RUSAGE_THREAD, &after);
  const auto microseconds = [](const rusage& use) {
    return (use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1'000'000L + use.ru_utime.tv_usec +
           use.ru_stime.tv_usec;
  };
  EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 20);  // of waits: one a sleep
  EXPECT_LE(microseconds(after) - microseconds(before), 20'000);
}

TEST(RunLoop, SignalsDoNotEndAWait) {
  Action action;
  action.Add();
  const RepeatedSignals signals;
  const auto start = Clock::now();
  EXPECT_EQ(kCFRunLoopRunTimedOut, CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.08, false));
  EXPECT_GE(Clock::now() - start, 80ms);
  EXPECT_TRUE(RepeatedSignals::haveCome);
  EXPECT_EQ(0, action.performed);
}

TEST(MachPort, ARetainCallbackMayMakeAnotherPort) {
  WithinTime([] {
    CFMachPortContext context = {};
    int retained = 0;
    context.info = &retained;
    context.retain = [](const void* info) {
      const OwnedRef<CFMachPortRef> inner = CFMachPortCreate(nullptr, nullptr, nullptr, nullptr);
      EXPECT_NE(nullptr, static_cast<CFMachPortRef>(inner));
      ++*static_cast<int*>(const_cast<void*>(info));
      return info;
    };
    context.release = [](const void* info) { --*static_cast<int*>(const_cast<void*>(info)); };
    Boolean shouldFree = true;
    const OwnedRef<CFMachPortRef> port = CFMachPortCreate(nullptr, nullptr, &context, &shouldFree);
    EXPECT_FALSE(shouldFree);
    EXPECT_EQ(1, retained);
    // The same object: its context stays the first one.
    const OwnedRef<CFMachPortRef> same =
        CFMachPortCreateWithPort(nullptr, CFMachPortGetPort(port), nullptr, &context, &shouldFree);
    EXPECT_TRUE(shouldFree);
    EXPECT_EQ(static_cast<CFMachPortRef>(port), static_cast<CFMachPortRef>(same));
    EXPECT_EQ(1, retained);
    CFMachPortInvalidate(port);
    EXPECT_EQ(0, retained);
  });
}

}  // namespace
