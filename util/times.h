#pragma once

#include <CoreServices/CoreServices.h>

// Points in time, stopwatches and delays on the platform's absolute time, which does not follow
// changes of the wall clock. A Duration counts milliseconds, or microseconds if it is negative.
// Only one thread at a time may use an object; the functions may be called from any thread.

// A point in time. A sum that would overflow becomes the greatest value.
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

  bool IsPast() const;  // true also if it is at most a microsecond ahead
  Nanoseconds AsNanoseconds() const { return AbsoluteToNanoseconds(value); }
  double AsSeconds() const;
  operator const UnsignedWide&() const { return value; }

 private:
  AbsoluteTime value;
};

// A stopwatch. Stop adds the time since Start to the sum. Meant: it keeps the start, so a second
// Stop adds the whole time since then again, because callers rely on it.
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

// Keeps calls at least an interval apart, counted from the end of the previous call's wait. The
// first call does not wait. With an interval of 0 no call waits.
class MPCallThrottle {
 public:
  explicit MPCallThrottle(Duration minimum);

  // Waits if necessary. Returns 0, or the status of a failed delay, which does not move the time of
  // the next call.
  OSStatus DelayIfNeeded();

 private:
  AbsoluteTime nextAllowed;
  AbsoluteTime interval;
};

// The date for people: the local time and its distance from Greenwich.
struct LocalTimeRecord {
  UInt32 highSeconds;  // 0
  UInt32 seconds;      // local, since the beginning of 1904
  UInt32 flags;        // kLocalTimeIsKnown
  SInt32 gmtOffset;    // seconds east of Greenwich, daylight saving time included
};
constexpr UInt32 kLocalTimeIsKnown = 0x100;

// Stores the present date of the wall clock. Do not measure time with it.
void GetLocalTime(LocalTimeRecord& record);

// Blocks the caller. Returns the platform's status.
OSStatus MPDelayForDuration(Duration duration);

double NanosecondsToSeconds(const UnsignedWide& nanoseconds);
double NanosecondsToSeconds(UInt64 nanoseconds);

// Converts a time in 16.16 seconds. Meant: a second gives 999,948,288 ns, because callers rely on
// the factor, which was rounded down.
UInt64 UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds);
void UnsignedFixedSecsToNanoseconds(UnsignedFixed seconds, UnsignedWide& nanoseconds);

// Converts a rate in 16.16 hertz to its period, rounded down. A rate of 0 gives 0.
UInt64 UnsignedFixedRateToNanoseconds(UnsignedFixed rate);
void UnsignedFixedRateToNanoseconds(UnsignedFixed rate, UnsignedWide& nanoseconds);
