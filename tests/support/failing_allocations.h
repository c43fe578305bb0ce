#pragma once

#include <CoreServices/CoreServices.h>

#include <functional>
#include <set>
#include <string>

// Allocations that fail. A test program that is linked to vlt_failing_allocations has
// malloc, calloc, realloc, their aligned forms and every form of operator new pass through a layer
// that counts them and can make the n-th one fail, in this program alone. Without the address
// sanitizer the layer stands on the C library's functions, with it on the sanitizer's, so both
// work together. It does not stand on those of the thread sanitizer.
//
// Tests of one thread call Sweep. A role of a two-process test arms the layer itself.

// Which allocations fail: the n-th alone, or it and all later ones. The first kind finds code that
// does not expect a failure, the second kind clean-up code that needs memory itself.
enum class AllocationFailure { kOne, kAllFromThere };

// From now on the `number`-th allocation (from 1) of the calling thread fails, as `kind` says.
// Fails nothing when `number` is 0, and ends what was armed before.
void ArmAllocationFailure(int number, AllocationFailure kind);
// As above for the allocations of all threads together, until the process has ended. Each failure
// writes a line "failed" to the file descriptor `descriptor`.
void ArmAllocationFailureOfProcess(int number, AllocationFailure kind, int descriptor);
void DisarmAllocationFailure();

// Since it was armed: all allocations, and those that failed.
int AllocationsSinceArmed();
int FailedAllocations();
// Where the last one failed: program and offset of each caller, for addr2line.
std::string WhereAllocationFailed();

// Blocks that were allocated and not yet freed, of the whole process.
long LiveAllocations();

struct AllocationSweep {
  const char* name;
  // Runs while an allocation fails. It undoes what it did, so that it can run again.
  std::function<OSStatus()> work;
  // The statuses that it may return when an allocation has failed, beside 0.
  std::set<OSStatus> refusals;
  // Checks the state afterwards, with memory. Gets the status of `work`. May be empty.
  std::function<void(OSStatus)> check = {};
};

// Does the work with the first allocation failing, then the second, and so on until no allocation
// fails, once for each kind of failure. Expects: a permitted status, no exception, no
// block that is lost (an allocation that stays once is a cache, one that stays at each repetition
// is a leak), a state that passes the check, and 0 in the last round. Prints a line of outcomes.
void SweepAllocations(const AllocationSweep& sweep);

// The same in one call. Without `refusals` memFullErr is permitted.
inline void Sweep(const char* name, std::function<OSStatus()> work,
                  std::set<OSStatus> refusals = {memFullErr},
                  std::function<void(OSStatus)> check = {}) {
  SweepAllocations({name, std::move(work), std::move(refusals), std::move(check)});
}
