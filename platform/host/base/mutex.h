#pragma once

#include <sys/single_threaded.h>

#include <atomic>
#include <cassert>
#include <cstdint>

// True while the process has one thread only, as the C library tells. What was written then is seen
// by every thread that starts later.
inline bool HostIsSingleThreaded() { return __libc_single_threaded != 0; }

// HostMutex is a mutex of one word for sections that are short and never wait: taken and given back
// without a call, and in a process that has one thread only without a locked instruction. Not
// recursive, no order among those who wait. What a condition belongs to
// needs std::mutex. A forked child may overwrite one with a new one.
class HostMutex {
 public:
  constexpr HostMutex() = default;
  HostMutex(const HostMutex&) = delete;
  HostMutex& operator=(const HostMutex&) = delete;

  void lock() {
    if (HostIsSingleThreaded()) return word.store(kHeld, std::memory_order_relaxed);
    uint32_t found = kFree;
    if (!word.compare_exchange_strong(found, kHeld, std::memory_order_acquire,
                                      std::memory_order_relaxed)) [[unlikely]] {
      Wait();
    }
  }

  void unlock() {
    // A thread may have been started since lock(): the word says the same in both ways.
    if (HostIsSingleThreaded()) return word.store(kFree, std::memory_order_relaxed);
    if (word.exchange(kFree, std::memory_order_release) == kAwaited) [[unlikely]] {
      word.notify_one();
    }
  }

  // For functions whose callers hold the mutex. Knows that a thread holds it, not which one.
  void AssertHeld() const { assert(word.load(std::memory_order_relaxed) != kFree); }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kAwaited = 2;  // held, and somebody may sleep

  [[gnu::noinline, gnu::cold]] void Wait() {
    // Taken as awaited: whether others sleep too is not known.
    while (word.exchange(kAwaited, std::memory_order_acquire) != kFree) {
      word.wait(kAwaited, std::memory_order_relaxed);
    }
  }

  std::atomic<uint32_t> word{kFree};
};
