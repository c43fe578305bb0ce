#pragma once

#include <mach/mach.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/host/wire/frame_buffer.h"

// A thread of this process that waits for the reply of a port of this process. Shared by that
// thread, the queued request and its reply right. Any thread; Wait is called once, by the waiting
// thread.
class HostLocalWaiter {
 public:
  // Hands the reply over. Only the first call of these three has an effect.
  void Reply(HostFrameSlice body);
  void Abandon();  // the port has gone
  void Fail();     // there is no memory for the reply

  // Stores the reply right through which the reply will come. Returns false if the thread no longer
  // waits.
  bool Expect(mach_port_t right);

  // Waits until `deadline` (monotonic nanoseconds) and removes the reply right. Returns 0 and
  // stores the reply's flattened body; else connectionInvalid (the port has gone), memFullErr or
  // errAETimeout.
  OSStatus Wait(int64_t deadline, HostFrameSlice* body);

 private:
  enum class State { kWaiting, kReplied, kAbandoned, kFailed, kTimedOut };
  void Settle(State how);
  std::mutex mutex;
  std::condition_variable changed;
  State state = State::kWaiting;
  mach_port_t replyRight = MACH_PORT_NULL;
  HostFrameSlice reply;
};
