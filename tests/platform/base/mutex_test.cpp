#include "platform/host/base/mutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// The first test, since the process has only one thread until now. A mutex that was locked then
// must keep the second thread out.
TEST(HostMutex, StaysLockedWhileTheFirstThreadStarts) {
  HostMutex mutex;
  int value = 0, seen = 0;
  mutex.lock();
  std::thread other([&] {
    const std::lock_guard<HostMutex> lock(mutex);
    seen = value;
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  value = 1;
  mutex.unlock();
  other.join();
  EXPECT_EQ(1, seen);
}

// With more threads than processors some have to sleep.
TEST(HostMutex, LetsOneThreadInAtATime) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 2000;  // on a busy machine each of the yields may take milliseconds
  HostMutex mutex;
  int count = 0, inside = 0, most = 0;
  const auto work = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const std::lock_guard<HostMutex> lock(mutex);
      most = std::max(most, ++inside);
      if (i % 64 == 0) std::this_thread::yield();
      ++count;
      --inside;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kRounds, count);
  EXPECT_EQ(1, most);
}

}  // namespace
