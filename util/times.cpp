#include "util/times.h"

namespace {

UnsignedWide Wide(UInt64 value) {
  return {static_cast<UInt32>(value >> 32), static_cast<UInt32>(value)};
}

bool IsZero(const UnsignedWide& wide) { return wide.hi == 0 && wide.lo == 0; }

}  // namespace

void NativeTime::SetToDurationFromNow(Duration duration) {
  SetToNow();
  if (duration != 0) value = AddDurationToAbsolute(duration, value);
}

void NativeTime::SetToNanosecondsFromNow(const UnsignedWide& nanoseconds) {
  value = AddNanosecondsToAbsolute(nanoseconds, UpTime());
}

void NativeTime::SetToUInt64(UInt64 time) { value = Wide(time); }

bool NativeTime::IsPast() const { return AbsoluteDeltaToDuration(value, UpTime()) == 0; }

double NativeTime::AsSeconds() const { return NanosecondsToSeconds(AsNanoseconds()); }

void NativeTimer::Stop() {
  elapsed = AddAbsoluteToAbsolute(elapsed, SubAbsoluteFromAbsolute(UpTime(), start));
}

MPCallThrottle::MPCallThrottle(Duration minimum)
    : nextAllowed(UpTime()), interval(DurationToAbsolute(minimum)) {}

OSStatus MPCallThrottle::DelayIfNeeded() {
  if (IsZero(interval)) return noErr;
  AbsoluteTime now = UpTime();
  if (!IsZero(SubAbsoluteFromAbsolute(nextAllowed, now))) {
    const OSStatus err = MPDelayUntil(&nextAllowed);
    if (err != noErr) return err;
    now = UpTime();
  }
  nextAllowed = AddAbsoluteToAbsolute(now, interval);
  return noErr;
}

void GetLocalTime(LocalTimeRecord& record) {
  constexpr UInt32 kOffsetMask = 0x00FFFFFF;
  constexpr UInt32 kOffsetSign = 0x00800000;
  MachineLocation location;
  UInt32 seconds = 0;
  GetDateTime(&seconds);
  ReadLocation(&location);
  UInt32 offset = static_cast<UInt32>(location.u.gmtDelta) & kOffsetMask;
  if ((offset & kOffsetSign) != 0) offset |= ~kOffsetMask;
  record = {0, seconds, kLocalTimeIsKnown, static_cast<SInt32>(offset)};
}

OSStatus MPDelayForDuration(Duration duration) {
  AbsoluteTime deadline = AddDurationToAbsolute(duration, UpTime());
  return MPDelayUntil(&deadline);
}

double NanosecondsToSeconds(const UnsignedWide& nanoseconds) {
  return nanoseconds.hi * 4.294967296 + nanoseconds.lo * 1e-9;
}

double NanosecondsToSeconds(UInt64 nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

UInt64 UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds) {
  // Meant: 10^9 / 65536 without its fraction, because callers rely on the factor.
  return UInt64{seconds} * 15258;
}

void UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds, UnsignedWide& nanoseconds) {
  nanoseconds = Wide(UnsignedFixedSecsToNanoseconds(seconds));
}

UInt64 UnsignedFixedRateToNanoseconds(UnsignedFixed rate) {
  constexpr UInt64 kSecond = UInt64{1'000'000'000} << 16;
  return rate != 0 ? kSecond / rate : 0;
}

void UnsignedFixedRateToNanoseconds(UnsignedFixed rate, UnsignedWide& nanoseconds) {
  nanoseconds = Wide(UnsignedFixedRateToNanoseconds(rate));
}
