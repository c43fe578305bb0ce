#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "tests/support/test_process.h"

// What the kernel counts for a process at this moment. A test compares a server's counts before and
// after it disturbs the server. Any thread.
struct ProcessUse {
  size_t descriptors = 0;
  size_t threads = 0;
  size_t memory = 0;          // resident bytes that it wrote to
  int64_t processorTime = 0;  // nanoseconds, of all its threads together
};
ProcessUse UseOf(pid_t pid);

// Sanitizers keep freed memory, so that its amount means nothing under them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMemoryTells = false;
#else
inline constexpr bool kMemoryTells = true;
#endif

// Waits until the process has as many file descriptors and threads as `before`. Fails the test,
// with the numbers, if that takes longer than `limit`.
void ExpectBackAt(const ProcessUse& before, pid_t pid, std::chrono::milliseconds limit = 10s);

// Returns the kernel's letter for a process's state: R, S, T (stopped), Z, ...; 0 if it is gone.
char ProcessStateOf(pid_t pid);

void WaitForState(pid_t pid, char letter);

// Returns how much longer than usual a test runs: VLT_TEST_SCALE, or 1.
int TestScale();

// Raises this process's limit of file descriptors as far as permitted.
void RaiseDescriptorLimit();

// Waits for an instant of the monotonic clock (nanoseconds), for starts at one time.
void SleepUntil(int64_t instant);
