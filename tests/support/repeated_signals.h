#pragma once

#include <signal.h>
#include <sys/time.h>

#include <atomic>

// While it lives, this process gets a signal a thousand times a second, with a handler and without
// SA_RESTART. No wait may become shorter or fail by that.
class RepeatedSignals {
 public:
  RepeatedSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int) { haveCome = true; };
    sigaction(SIGALRM, &action, &before);
    SetInterval(1000);
  }
  ~RepeatedSignals() {
    SetInterval(0);
    sigaction(SIGALRM, &before, nullptr);
  }

  // Any thread may get the next signal.
  inline static std::atomic<bool> haveCome = false;

 private:
  static void SetInterval(suseconds_t microseconds) {
    const itimerval timer = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }

  struct sigaction before = {};
};
