#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include <CoreServices/CoreServices.h>

// NotificationTurn lets one thread at a time take from a worker's notification queue. A message
// that one thread takes may be what another waits to see done: so whoever waits for a change, and
// not for a message, learns of each message that was handled. Belongs to one worker object; any
// thread.
class NotificationTurn {
 public:
  NotificationTurn() = default;
  NotificationTurn(const NotificationTurn&) = delete;
  NotificationTurn& operator=(const NotificationTurn&) = delete;

  // The caller's turn, until End. 0, or kMPTimeoutErr when another thread had it all the time. A
  // thread that has the turn gets it again, and ends it as often.
  OSStatus Begin(Duration timeout);
  void End();  // what was taken has been handled

  // A number that changes with each message handled. Whoever waits for a change asks for it, then
  // looks whether the change has come, then calls BeginUnlessHandled with it.
  uint32_t Handled();

  // Begins the caller's turn (true), unless a message was handled since `ticket`: waits for either.
  // When false, `*err` is 0 or, if the time ran out, kMPTimeoutErr.
  bool BeginUnlessHandled(uint32_t ticket, Duration timeout, OSStatus* err);

  bool IsCallers();  // the calling thread has the turn

 private:
  bool IsOthers() const { return depth > 0 && holder != std::this_thread::get_id(); }
  void Take();
  template <class Done>
  bool Wait(std::unique_lock<std::mutex>& lock, Duration timeout, Done done);

  std::mutex mutex;
  std::condition_variable changed;
  std::thread::id holder;
  uint32_t depth = 0;
  uint32_t handled = 0;
};
