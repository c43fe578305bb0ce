#pragma once

// The system calls by which this program changes files, passed through a layer that counts them and
// can make one of them fail, in this process alone and without tracing. A test program that lists
// interposed_calls.cpp among its sources has the layer: its functions take the place of the C
// library's (open, openat, stat, fstat, fstatat, read, write, fsync, renameat..., see there). For
// native, dynamically linked test programs. One thread at a time.

enum class CallFault {
  kNone,        // counts only
  kError,       // the call is not made and fails with `error`
  kKill,        // the process is killed before the call
  kStop,        // the process is stopped before the call (SIGSTOP)
  kShortWrite,  // a write takes half of its bytes; other calls go through
  kInterrupt    // a call that signals can interrupt fails with EINTR; others go through
};

// From now on the `number`-th call (from 1) meets `fault`; with 0 no call does.
void ArmCallFault(CallFault fault, int number, int error = 0);

// As above for the `number`-th fsync alone, or for the `number`-th close alone, which is made and
// reports EIO.
void ArmFsyncFault(CallFault fault, int number);
void ArmCloseFault(int number);

// From now on each query of the monotonic clock advances it by `seconds` for good; with 0 time
// passes normally.
void LeapClock(int seconds);
// Returns how far the clock has been advanced in all.
int LeaptSeconds();

// Calls since the fault was armed.
int CallsSinceArmed();
