#include "util/times.h"

#include <gtest/gtest.h>
#include <time.h>

#include <chrono>

#include "tests/support/repeated_signals.h"
#include "tests/support/scratch_folder.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

UInt64 Value(const UnsignedWide& wide) { return UInt64{wide.hi} << 32 | wide.lo; }
UnsignedWide Wide(UInt64 value) {
  return {static_cast<UInt32>(value >> 32), static_cast<UInt32>(value)};
}

TEST(Times, ConversionsRoundDownAndARateOf0Gives0) {
  EXPECT_DOUBLE_EQ(4.294967296, NanosecondsToSeconds(UnsignedWide{1, 0}));
  EXPECT_DOUBLE_EQ(9223372036.854776, NanosecondsToSeconds(UInt64{1} << 63));
  const std::tuple<UnsignedFixed, UInt64, UInt64> rows[] = {
      {0, 0, 0},
      {1, 15258, 65'536'000'000'000},
      {0x001E0000, 29'998'448'640, 33'333'333},
      {0xFFFFFFFF, 65'532'610'987'110, 15258},
  };
  for (const auto& [fixed, fromSeconds, fromRate] : rows) {
    UnsignedWide wide = {9, 9};
    EXPECT_EQ(fromSeconds, UnsignedFixedSecsToNanoseconds(fixed));
    UnsignedFixedSecsToNanoseconds(fixed, wide);
    EXPECT_EQ(fromSeconds, Value(wide));
    EXPECT_EQ(fromRate, UnsignedFixedRateToNanoseconds(fixed));
    UnsignedFixedRateToNanoseconds(fixed, wide);
    EXPECT_EQ(fromRate, Value(wide));
  }
}

TEST(Times, SumsThatOverflowGiveTheGreatestTime) {
  NativeTime time(durationForever);
  EXPECT_FALSE(time.IsPast());
  time.SetToUInt64(0);
  EXPECT_TRUE(time.IsPast());
  time.SetToNanosecondsFromNow(Wide(UINT64_MAX));
  EXPECT_EQ(UINT64_MAX, Value(time));
  const UInt64 before = Value(UpTime());
  time.SetToDurationFromNow(-5'000'000);  // microseconds
  EXPECT_GE(Value(time), before + 5'000'000'000);
  EXPECT_LE(Value(time), Value(UpTime()) + 5'000'000'000);
  time = Wide(2'500'000'000);
  EXPECT_DOUBLE_EQ(2.5, time.AsSeconds());
}

TEST(Times, AStopwatchAddsUpFromTheSameStart) {
  NativeTimer timer;
  EXPECT_EQ(0, timer.AsSeconds());
  const auto before = Clock::now();
  timer.Start();
  EXPECT_EQ(noErr, MPDelayForDuration(20));
  timer.Stop();
  const double once = timer.AsSeconds();
  EXPECT_GE(once, 0.020);
  // Meant: adds the time since the same start again, because callers rely on it.
  timer.Stop();
  const double all = std::chrono::duration<double>(Clock::now() - before).count();
  EXPECT_GE(timer.AsSeconds(), 2 * once);
  EXPECT_LE(timer.AsSeconds(), 2 * all);
  timer.Reset();
  EXPECT_EQ(0, timer.AsSeconds());
}

TEST(Times, LocalTimeFollowsTheZone) {
  constexpr SInt64 kTo1970 = 2082844800;
  const std::tuple<const char*, SInt32, bool> rows[] = {
      {"UTC0", 0, false},
      {"EST-5:30", 19800, false},
      {"STD3DAY,0/0,J365/25", -7200, true},  // all the year
  };
  for (const auto& [zone, offset, isDaylight] : rows) {
    SCOPED_TRACE(zone);
    const ScopedVariable variable("TZ", zone);
    tzset();
    LocalTimeRecord record = {1, 1, 1, 1};
    const SInt64 before = time(nullptr);
    GetLocalTime(record);
    const SInt64 after = time(nullptr);
    EXPECT_EQ(0u, record.highSeconds);
    EXPECT_EQ(kLocalTimeIsKnown, record.flags);
    EXPECT_EQ(offset, record.gmtOffset);
    EXPECT_GE(SInt64{record.seconds}, before + kTo1970 + offset);
    EXPECT_LE(SInt64{record.seconds}, after + kTo1970 + offset);
    MachineLocation location;
    ReadLocation(&location);
    EXPECT_EQ(offset & 0xFFFFFF, location.u.gmtDelta & 0xFFFFFF);
    EXPECT_EQ(isDaylight, (location.u.dlsDelta & 0x80) != 0);
  }
  tzset();
}

TEST(Times, DelaysAreNeverShort) {
  const std::pair<Duration, std::chrono::nanoseconds> rows[] = {
      {0, 0ns}, {30, 30ms}, {-30'000, 30ms}, {-100, 100us}};
  const RepeatedSignals signals;
  for (const auto& [duration, least] : rows) {
    const auto before = Clock::now();
    EXPECT_EQ(noErr, MPDelayForDuration(duration));
    const auto passed = Clock::now() - before;
    EXPECT_GE(passed, least) << duration;
  }
  EXPECT_TRUE(RepeatedSignals::haveCome);
}

TEST(Times, AThrottleKeepsCallsApart) {
  const RepeatedSignals signals;
  const auto before = Clock::now();
  MPCallThrottle throttle(25);
  for (int call = 0; call < 4; ++call) {
    EXPECT_EQ(noErr, throttle.DelayIfNeeded());
    EXPECT_GE(Clock::now() - before, call * 25ms) << call;  // the first does not wait: see below
  }
  // One wait of `slow` would take weeks.
  MPCallThrottle slow(durationForever), none(0);
  EXPECT_EQ(noErr, slow.DelayIfNeeded());
  for (int call = 0; call < 1000; ++call) EXPECT_EQ(noErr, none.DelayIfNeeded());
}

}  // namespace
