#include <CoreServices/DriverServices.h>

#include "platform/host/base/clock.h"

namespace {

constexpr uint64_t kPerMicrosecond = 1'000;
constexpr uint64_t kPerMillisecond = 1'000'000;

uint64_t Value(UnsignedWide wide) { return uint64_t{wide.hi} << 32 | wide.lo; }

UnsignedWide Wide(uint64_t value) {
  return {static_cast<UInt32>(value >> 32), static_cast<UInt32>(value)};
}

UnsignedWide Sum(uint64_t a, uint64_t b) { return Wide(a > UINT64_MAX - b ? UINT64_MAX : a + b); }
UnsignedWide Difference(uint64_t a, uint64_t b) { return Wide(a > b ? a - b : 0); }

uint64_t LengthOf(Duration duration) {
  const int64_t wide = duration;
  return wide < 0 ? static_cast<uint64_t>(-wide) * kPerMicrosecond
                  : static_cast<uint64_t>(wide) * kPerMillisecond;
}

Duration DurationOf(uint64_t nanoseconds) {
  const uint64_t micro = nanoseconds / kPerMicrosecond;
  if (micro <= INT32_MAX) return -static_cast<Duration>(micro);
  const uint64_t milli = nanoseconds / kPerMillisecond;
  return milli <= INT32_MAX ? static_cast<Duration>(milli) : Duration{durationForever};
}

}  // namespace

AbsoluteTime UpTime(void) { return Wide(static_cast<uint64_t>(HostNow())); }

Nanoseconds AbsoluteToNanoseconds(AbsoluteTime time) { return time; }
AbsoluteTime NanosecondsToAbsolute(Nanoseconds nanoseconds) { return nanoseconds; }

Duration AbsoluteToDuration(AbsoluteTime time) { return DurationOf(Value(time)); }
Duration NanosecondsToDuration(Nanoseconds length) { return DurationOf(Value(length)); }
AbsoluteTime DurationToAbsolute(Duration duration) { return Wide(LengthOf(duration)); }
Nanoseconds DurationToNanoseconds(Duration duration) { return Wide(LengthOf(duration)); }

AbsoluteTime AddAbsoluteToAbsolute(AbsoluteTime a, AbsoluteTime b) {
  return Sum(Value(a), Value(b));
}

AbsoluteTime SubAbsoluteFromAbsolute(AbsoluteTime left, AbsoluteTime right) {
  return Difference(Value(left), Value(right));
}

AbsoluteTime AddNanosecondsToAbsolute(Nanoseconds length, AbsoluteTime time) {
  return Sum(Value(time), Value(length));
}

AbsoluteTime AddDurationToAbsolute(Duration length, AbsoluteTime time) {
  return Sum(Value(time), LengthOf(length));
}

AbsoluteTime SubNanosecondsFromAbsolute(Nanoseconds length, AbsoluteTime time) {
  return Difference(Value(time), Value(length));
}

AbsoluteTime SubDurationFromAbsolute(Duration length, AbsoluteTime time) {
  return Difference(Value(time), LengthOf(length));
}

Nanoseconds AbsoluteDeltaToNanoseconds(AbsoluteTime left, AbsoluteTime right) {
  return Difference(Value(left), Value(right));
}

Duration AbsoluteDeltaToDuration(AbsoluteTime left, AbsoluteTime right) {
  return DurationOf(Value(Difference(Value(left), Value(right))));
}
