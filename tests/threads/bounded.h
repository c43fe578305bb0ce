#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>
#include <vector>

// Runs `body`, and aborts the program if that does not return in time, so that a fault that hangs
// is reported where it hangs.
inline void WithinTime(const std::function<void()>& body,
                       std::chrono::seconds limit = std::chrono::seconds(100)) {
  std::promise<void> done;
  std::future<void> isDone = done.get_future();
  std::thread thread([&] {
    body();
    done.set_value();
  });
  if (isDone.wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "hangs: not done after %lld s\n", static_cast<long long>(limit.count()));
    std::abort();
  }
  thread.join();
}

// Runs `body` in `count` threads with their number, also within the time.
inline void InThreads(int count, const std::function<void(int)>& body) {
  WithinTime([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++) threads.emplace_back(body, i);
    for (std::thread& thread : threads) thread.join();
  });
}
