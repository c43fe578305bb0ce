#pragma once

#include <CoreServices/MacTypes.h>

// Time since the machine's start. An AbsoluteTime counts nanoseconds of the monotonic clock, so it
// never runs backwards and steps of the wall clock do not matter; only the conversions below give
// it meaning. Sums saturate at the greatest value, differences at 0. A Duration is a length: more
// than 0 milliseconds, less than 0 microseconds of the absolute value, so 1000 and -1000000 are the
// same. Any thread.

enum : Duration {
  kDurationMicrosecond = -1,
  kDurationMillisecond = 1,
  kDurationImmediate = 0,
  kDurationForever = 0x7FFFFFFF,
  durationMicrosecond = kDurationMicrosecond,
  durationMillisecond = kDurationMillisecond,
  durationNoWait = kDurationImmediate,
  durationForever = kDurationForever,
};

#pragma GCC visibility push(default)
extern "C" {

AbsoluteTime UpTime(void);

Nanoseconds AbsoluteToNanoseconds(AbsoluteTime time);
AbsoluteTime NanosecondsToAbsolute(Nanoseconds nanoseconds);

// Durations are given in the finest form that fits: microseconds up to 2^31 - 1 of them, then
// milliseconds, then durationForever. Less than a microsecond is 0.
Duration AbsoluteToDuration(AbsoluteTime time);
Duration NanosecondsToDuration(Nanoseconds nanoseconds);
// durationForever converts as that many milliseconds.
AbsoluteTime DurationToAbsolute(Duration duration);
Nanoseconds DurationToNanoseconds(Duration duration);

AbsoluteTime AddAbsoluteToAbsolute(AbsoluteTime a, AbsoluteTime b);
AbsoluteTime SubAbsoluteFromAbsolute(AbsoluteTime left, AbsoluteTime right);  // left - right

// The first argument is the length, the second the time. A negative duration means microseconds; it
// does not subtract.
AbsoluteTime AddNanosecondsToAbsolute(Nanoseconds length, AbsoluteTime time);
AbsoluteTime AddDurationToAbsolute(Duration length, AbsoluteTime time);
AbsoluteTime SubNanosecondsFromAbsolute(Nanoseconds length, AbsoluteTime time);
AbsoluteTime SubDurationFromAbsolute(Duration length, AbsoluteTime time);

// left - right; 0 when right is later.
Nanoseconds AbsoluteDeltaToNanoseconds(AbsoluteTime left, AbsoluteTime right);
Duration AbsoluteDeltaToDuration(AbsoluteTime left, AbsoluteTime right);

}  // extern "C"
#pragma GCC visibility pop
