#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include <CoreServices/CoreServices.h>

// The end of one wait that consists of several: for the turn, then for a message. A value; any
// thread.
class WaitLimit {
 public:
  // From now on. Milliseconds, negative microseconds, or kDurationForever.
  explicit WaitLimit(Duration timeout);

  bool IsForever() const { return isForever; }
  std::chrono::steady_clock::time_point End() const { return end; }
  Duration Left() const;  // what remains, rounded up; kDurationImmediate when nothing does

 private:
  bool isForever;
  std::chrono::steady_clock::time_point end;
};

// NotificationTurn lets one thread at a time take from a worker's notification queue. The message
// that one thread takes may bring about the change that another thread waits for. A thread that
// waits for a change is therefore woken after each handled message. Belongs to one worker object.
// Any thread.
class NotificationTurn {
 public:
  NotificationTurn() = default;
  NotificationTurn(const NotificationTurn&) = delete;
  NotificationTurn& operator=(const NotificationTurn&) = delete;

  // Begins the caller's turn, which lasts until End. Returns 0, or kMPTimeoutErr if another thread
  // had the turn all the time. A thread that has the turn may begin it again, and ends it as often.
  OSStatus Begin(const WaitLimit& limit);
  void End();  // what was taken has been handled

  // Returns a number that changes with each handled message. A thread that waits for a change reads
  // it, then checks whether the change has come, then calls BeginUnlessHandled with the number.
  uint32_t Handled();

  // Waits until the turn is free or a message has been handled since `ticket`. Returns true if it
  // began the caller's turn. If it returns false, `*err` is 0, or kMPTimeoutErr if the time ran
  // out.
  bool BeginUnlessHandled(uint32_t ticket, const WaitLimit& limit, OSStatus* err);

  bool IsCallers();  // whether the calling thread has the turn

 private:
  bool IsOthers() const { return depth > 0 && holder != std::this_thread::get_id(); }
  void Take();
  template <class Done>
  bool Wait(std::unique_lock<std::mutex>& lock, const WaitLimit& limit, Done done);

  std::mutex mutex;
  std::condition_variable changed;
  std::thread::id holder;
  uint32_t depth = 0;
  uint32_t handled = 0;
};
