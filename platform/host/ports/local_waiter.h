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
  // Hands the reply over; the first call counts.
  void Answer(HostFrameSlice body);
  void Abandon();  // the port has gone
  void Fail();     // there is no memory for the reply

  // The reply right through which the answer will come; false when nobody waits any more.
  bool Expect(mach_port_t right);

  // Result  0 with the reply's flattened body; connectionInvalid; memFullErr; errAETimeout at
  //         `deadline` (monotonic nanoseconds). The reply right is gone then.
  OSStatus Wait(int64_t deadline, HostFrameSlice* body);

 private:
  enum class State { kWaiting, kAnswered, kAbandoned, kFailed, kTimedOut };
  void Settle(State how);
  std::mutex mutex;
  std::condition_variable changed;
  State state = State::kWaiting;
  mach_port_t replyRight = MACH_PORT_NULL;
  HostFrameSlice reply;
};
