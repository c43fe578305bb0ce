#pragma once

#include <ctime>

#include <algorithm>
#include <climits>
#include <cstdint>

// Time on the monotonic clock, which no change of the wall clock affects. Any thread.

// Returns the nanoseconds since an arbitrary start.
inline int64_t HostNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline constexpr int64_t kHostMillisecond = 1'000'000;  // in nanoseconds
inline constexpr int64_t kHostSecond = 1'000'000'000;
inline constexpr int64_t kHostNever = INT64_MAX;  // a deadline that never passes

// Returns `now` + `nanoseconds`, at most kHostNever.
inline int64_t HostDeadlineAfter(int64_t now, int64_t nanoseconds) {
  return nanoseconds >= kHostNever - now ? kHostNever : now + nanoseconds;
}

// Returns the milliseconds until `deadline`, as poll and similar calls expect them: -1 for
// kHostNever, 0 if it has passed. Rounds up, so that a wait never ends early.
inline int HostMillisecondsUntil(int64_t deadline, int64_t now) {
  if (deadline == kHostNever) return -1;
  if (deadline <= now) return 0;
  const int64_t left = (deadline - now + kHostMillisecond - 1) / kHostMillisecond;
  return static_cast<int>(std::min<int64_t>(left, INT_MAX));
}
