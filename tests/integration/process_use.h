#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "tests/support/test_process.h"

// What a process holds at this moment, as the kernel tells. A test takes it before it disturbs a
// server and asks afterwards whether the server came back to it. Any thread.
struct ProcessUse {
  size_t descriptors = 0;
  size_t threads = 0;
  size_t memory = 0;          // bytes in memory that it made or changed
  size_t resident = 0;        // bytes in memory in all, what it shares with others included
  int64_t processorTime = 0;  // nanoseconds, of all its threads together
};
ProcessUse UseOf(pid_t pid);

// Sanitizers keep what was freed, so that memory says nothing under them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMemoryTells = false;
#else
inline constexpr bool kMemoryTells = true;
#endif

// Waits until the process has as many descriptors and threads as `before`. Fails the test, with the
// numbers, when that takes longer than `limit`.
void ExpectBackAt(const ProcessUse& before, pid_t pid, std::chrono::milliseconds limit = 10s);

// The kernel's letter for what a process does: R, S, T (stopped), Z, ...; 0 when there is none.
char ProcessStateOf(pid_t pid);

void WaitForState(pid_t pid, char letter);

// How much longer than in everyday use a test is to go on: VLT_TEST_SCALE, 1 without it.
int TestScale();

// Lets this process have as many descriptors as it may.
void RaiseDescriptorLimit();

// Waits for an instant of the monotonic clock (nanoseconds): for loads at a pace, and for starts
// at one time.
void SleepUntil(int64_t instant);
