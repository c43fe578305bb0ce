#pragma once

#include <signal.h>
#include <sys/time.h>

// While it lives, this process gets a signal a thousand times a second, with a handler and without
// SA_RESTART: no wait may become shorter or fail by that.
class RepeatedSignals {
 public:
  RepeatedSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int) { haveCome = 1; };
    sigaction(SIGALRM, &action, &before);
    SetInterval(1000);
  }
  ~RepeatedSignals() {
    SetInterval(0);
    sigaction(SIGALRM, &before, nullptr);
  }

  inline static volatile sig_atomic_t haveCome = 0;

 private:
  static void SetInterval(suseconds_t microseconds) {
    const itimerval timer = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }

  struct sigaction before = {};
};
