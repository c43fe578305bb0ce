#pragma once

#include <sys/single_threaded.h>

#include <atomic>
#include <cassert>
#include <cstdint>

// Returns whether the process has a single thread, as the C library reports. Threads that start
// later see what was written until then.
inline bool HostIsSingleThreaded() { return __libc_single_threaded != 0; }

// HostMutex is a mutex of one word for sections that are short and never wait. Locking and
// unlocking it takes no call, and no atomic instruction while the process has a single thread. It
// is not recursive, and waiting threads get it in any order. A condition variable needs std::mutex
// instead. A forked child may overwrite one with a new one.
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
    // A thread may have been started since lock(), which may therefore have taken the other branch.
    // Both branches use the same values.
    if (HostIsSingleThreaded()) return word.store(kFree, std::memory_order_relaxed);
    if (word.exchange(kFree, std::memory_order_release) == kAwaited) [[unlikely]] {
      word.notify_one();
    }
  }

  // For functions whose callers hold the mutex. Checks that a thread holds it, but not which one.
  void AssertHeld() const { assert(word.load(std::memory_order_relaxed) != kFree); }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kAwaited = 2;  // held, and a thread may sleep on it

  [[gnu::noinline, gnu::cold]] void Wait() {
    // Locks it as kAwaited, because other threads may sleep too.
    while (word.exchange(kAwaited, std::memory_order_acquire) != kFree) {
      word.wait(kAwaited, std::memory_order_relaxed);
    }
  }

  std::atomic<uint32_t> word{kFree};
};
