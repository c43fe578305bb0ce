#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <mach/mach.h>

#include <cstdint>
#include <thread>

// Time, atomics, thread scheduling and identifiers of the platform.

namespace {

constexpr UInt64 kMax = UINT64_MAX;

UnsignedWide Wide(UInt64 value) {
  return {static_cast<UInt32>(value >> 32), static_cast<UInt32>(value)};
}
UInt64 Value(UnsignedWide wide) { return UInt64{wide.hi} << 32 | wide.lo; }

TEST(AbsoluteTime, DurationsTakeTheFinestFormThatFits) {
  const std::tuple<UInt64, Duration, UInt64> rows[] = {
      {1'000, -1, 1'000},
      {20'000'999, -20'000, 20'000'000},
      {2'147'483'648'000, 2147483, 2'147'483'000'000},
      {2'147'483'647'000'000, 0x7FFFFFFF, 2'147'483'647'000'000},
      {2'147'483'648'000'000, durationForever, 2'147'483'647'000'000},
      {kMax, durationForever, 2'147'483'647'000'000},
  };
  for (const auto& [nanoseconds, duration, back] : rows) {
    SCOPED_TRACE(nanoseconds);
    EXPECT_EQ(duration, AbsoluteToDuration(Wide(nanoseconds)));
    EXPECT_EQ(duration, NanosecondsToDuration(Wide(nanoseconds)));
    EXPECT_EQ(duration, AbsoluteDeltaToDuration(Wide(nanoseconds), Wide(0)));
    EXPECT_EQ(back, Value(DurationToAbsolute(duration)));
    EXPECT_EQ(back, Value(DurationToNanoseconds(duration)));
  }
  EXPECT_EQ(2'147'483'648'000u, Value(DurationToAbsolute(INT32_MIN)));
}

TEST(AbsoluteTime, SumsSaturateAndDifferencesEndAtZero) {
  const struct {
    UInt64 a, b, sum, difference;
  } rows[] = {
      {0xFFFFFFFF, 1, 0x100000000, 0xFFFFFFFE},  // carries
      {kMax, 1, kMax, kMax - 1},
      {kMax - 1, kMax, kMax, 0},
  };
  for (const auto& row : rows) {
    const AbsoluteTime a = Wide(row.a);
    const AbsoluteTime b = Wide(row.b);
    EXPECT_EQ(row.sum, Value(AddAbsoluteToAbsolute(a, b)));
    EXPECT_EQ(row.sum, Value(AddNanosecondsToAbsolute(b, a)));
    EXPECT_EQ(row.difference, Value(SubAbsoluteFromAbsolute(a, b)));
    EXPECT_EQ(row.difference, Value(SubNanosecondsFromAbsolute(b, a)));  // the length first
    EXPECT_EQ(row.difference, Value(AbsoluteDeltaToNanoseconds(a, b)));
  }
  const AbsoluteTime time = Wide(5'000'000);
  EXPECT_EQ(8'000'000u, Value(AddDurationToAbsolute(3, time)));
  EXPECT_EQ(5'003'000u, Value(AddDurationToAbsolute(-3, time)));  // -3 is 3 microseconds
  EXPECT_EQ(0u, Value(SubDurationFromAbsolute(6, time)));
}

TEST(Atomics, GiveTheValueFromBefore) {
  SInt32 number = INT32_MAX;
  EXPECT_EQ(INT32_MAX, IncrementAtomic(&number));
  EXPECT_EQ(INT32_MIN, DecrementAtomic(&number));
  EXPECT_EQ(INT32_MAX, AddAtomic(-5, &number));
  UInt8 bits[2] = {0, 0};
  EXPECT_FALSE(TestAndSet(0, bits));
  EXPECT_TRUE(TestAndSet(8, bits));  // bit 0 again
  EXPECT_EQ(0x80, bits[0]);
  EXPECT_TRUE(TestAndClear(0, bits));
  EXPECT_EQ(0x00, bits[0]);
}

TEST(MachThread, HasAPortThatIsItsOwn) {
  const mach_port_t own = mach_thread_self();
  EXPECT_NE(MACH_PORT_NULL, own);
  EXPECT_EQ(own, mach_thread_self());
  mach_port_t other = MACH_PORT_NULL;
  policy_rr_info_data_t info = {};
  mach_msg_type_number_t count = POLICY_RR_INFO_COUNT;
  std::thread([&] {
    other = mach_thread_self();
    EXPECT_EQ(KERN_SUCCESS, thread_info(own, THREAD_SCHED_RR_INFO, &info.max_priority, &count));
  }).join();
  EXPECT_NE(own, other);
  EXPECT_EQ(31, info.base_priority);
  EXPECT_EQ(KERN_INVALID_ARGUMENT,
            thread_info(other, THREAD_SCHED_RR_INFO, &info.max_priority, &count));
}

TEST(MachThread, PoliciesAreStoredOrRefused) {
  std::thread([] {
    const mach_port_t self = mach_thread_self();
    const struct {
      policy_t policy;
      policy_rr_base_data_t base;
      mach_msg_type_number_t count;
      boolean_t setLimit;
      kern_return_t result;
      integer_t max, priority, quantum;  // afterwards
    } rows[] = {{POLICY_RR, {63, 5}, 2, false, KERN_SUCCESS, 63, 63, 5},
                {POLICY_RR, {64, 9}, 2, false, KERN_POLICY_LIMIT, 63, 63, 5},
                {3, {1, 9}, 2, false, KERN_INVALID_POLICY, 63, 63, 5},
                {POLICY_RR, {-1, 9}, 2, false, KERN_INVALID_ARGUMENT, 63, 63, 5},
                {POLICY_TIMESHARE, {20, 0}, 1, true, KERN_SUCCESS, 20, 20, 0}};
    for (const auto& row : rows) {
      policy_rr_base_data_t base = row.base;
      EXPECT_EQ(row.result,
                thread_policy(self, row.policy, &base.base_priority, row.count, row.setLimit));
      policy_rr_info_data_t info = {};
      mach_msg_type_number_t count = 99;
      EXPECT_EQ(KERN_SUCCESS, thread_info(self, THREAD_SCHED_RR_INFO, &info.max_priority, &count));
      EXPECT_EQ(POLICY_RR_INFO_COUNT, count);
      EXPECT_EQ(row.max, info.max_priority);
      EXPECT_EQ(row.priority, info.base_priority);
      EXPECT_EQ(row.quantum, info.quantum);
    }
    policy_timeshare_info_data_t info = {};
    mach_msg_type_number_t count = POLICY_TIMESHARE_INFO_COUNT - 1;
    EXPECT_EQ(KERN_INVALID_ARGUMENT,
              thread_info(self, THREAD_SCHED_TIMESHARE_INFO, &info.max_priority, &count));
  }).join();
}

TEST(CFUUID, KeepsAndComparesItsBytes) {
  const CFUUIDBytes bytes = CFUUIDGetUUIDBytes(IUnknownUUID);
  EXPECT_EQ(0xC0, bytes.byte8);
  const CFUUIDRef made = CFUUIDCreateFromUUIDBytes(kCFAllocatorDefault, bytes);
  EXPECT_TRUE(CFEqual(IUnknownUUID, made));
  CFRelease(made);
}

}  // namespace
