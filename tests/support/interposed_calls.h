#pragma once

// The system calls by which this program changes files, passed through a layer that counts them and
// can make one of them fail, in this process alone and without tracing. A test program that lists
// interposed_calls.cpp among its sources has the layer: its functions take the place of the C
// library's (open, openat, stat, fstat, fstatat, read, write, fsync, renameat..., see there). For
// native, dynamically linked test programs. Meant for one thread at a time.

enum class CallFault {
  kNone,        // counts only
  kError,       // the call is not made and fails with `error`
  kKill,        // the process is killed before the call
  kStop,        // the process is stopped before the call (SIGSTOP)
  kShortWrite,  // a write takes half of its bytes; other calls go through
  kInterrupt    // a call that signals can interrupt fails with EINTR; others go through
};

// From now on the `number`-th call (from 1) meets `fault`; 0: none does.
void ArmCallFault(CallFault fault, int number, int error = 0);

// As above for the `number`-th fsync alone, or for the `number`-th close alone, which is made and
// reports EIO.
void ArmFsyncFault(CallFault fault, int number);
void ArmCloseFault(int number);

// Every look at the monotonic clock from now on finds it so many seconds further than the last; it
// never goes back. 0: time passes as it does.
void LeapClock(int seconds);
// How far the clock has leapt in all.
int LeaptSeconds();

// Calls since the fault was armed.
int CallsSinceArmed();
