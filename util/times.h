#pragma once

#include <CoreServices/CoreServices.h>

// Points in time, stopwatches and delays on the platform's absolute time, which steps of the wall
// clock do not touch. A Duration is milliseconds, or microseconds when it is negative. Objects are
// for one thread at a time; the functions for any.

// A point in time. Sums that would not fit stop at the greatest value.
class NativeTime {
 public:
  NativeTime() { SetToNow(); }
  explicit NativeTime(Duration fromNow) { SetToDurationFromNow(fromNow); }
  NativeTime& operator=(const UnsignedWide& time) {
    value = time;
    return *this;
  }

  void SetToNow() { value = UpTime(); }
  void SetToDurationFromNow(Duration duration);
  void SetToNanosecondsFromNow(const UnsignedWide& nanoseconds);
  void SetToUInt64(UInt64 time);  // in units of absolute time

  bool IsPast() const;  // not more than a microsecond ahead
  Nanoseconds AsNanoseconds() const { return AbsoluteToNanoseconds(value); }
  double AsSeconds() const;
  operator const UnsignedWide&() const { return value; }

 private:
  AbsoluteTime value;
};

// A stopwatch. Stop adds the time since Start to what was gathered and does not forget the start:
// a second Stop adds the time since then once more.
class NativeTimer {
 public:
  NativeTimer() { Reset(); }

  void Start() { start.SetToNow(); }
  void Stop();
  void Reset() { elapsed.SetToUInt64(0); }
  double AsSeconds() const { return elapsed.AsSeconds(); }

 private:
  NativeTime elapsed;
  NativeTime start;
};

// Keeps calls at least an interval apart, counted from the end of the wait of the one before. The
// first one does not wait. An interval of 0 never waits.
class MPCallThrottle {
 public:
  explicit MPCallThrottle(Duration minimum);

  // 0, or the status of a delay that failed; then the next call is allowed when this one was.
  OSStatus DelayIfNeeded();

 private:
  AbsoluteTime nextAllowed;
  AbsoluteTime interval;
};

// The date for people: the local time, and how far it is from Greenwich.
struct LocalTimeRecord {
  UInt32 highSeconds;  // 0
  UInt32 seconds;      // local, since the beginning of 1904
  UInt32 flags;        // kLocalTimeIsKnown
  SInt32 gmtOffset;    // seconds east of Greenwich, daylight saving time included
};
constexpr UInt32 kLocalTimeIsKnown = 0x100;

// Of now, by the wall clock: not for measuring.
void GetLocalTime(LocalTimeRecord& record);

// Blocks the caller; the platform's status.
OSStatus MPDelayForDuration(Duration duration);

double NanosecondsToSeconds(const UnsignedWide& nanoseconds);
double NanosecondsToSeconds(UInt64 nanoseconds);

// A length in 16.16 seconds; a second gives 999,948,288 ns, by a factor that was rounded down.
UInt64 UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds);
void UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds, UnsignedWide& nanoseconds);

// The period of a rate in 16.16 hertz, rounded down; 0 for a rate of 0.
UInt64 UnsignedFixedRateToNanoseconds(UnsignedFixed rate);
void UnsignedFixedRateToNanoseconds(UnsignedFixed rate, UnsignedWide& nanoseconds);
