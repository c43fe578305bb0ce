#include "platform/host/ports/local_waiter.h"

#include <CoreServices/MacErrors.h>

#include <cassert>
#include <chrono>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/ports/port_table.h"

void HostLocalWaiter::Reply(HostFrameSlice body) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (state != State::kWaiting) return;
  state = State::kReplied;
  reply = std::move(body);
  changed.notify_all();
}

void HostLocalWaiter::Abandon() { Settle(State::kAbandoned); }
void HostLocalWaiter::Fail() { Settle(State::kFailed); }

void HostLocalWaiter::Settle(State how) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (state != State::kWaiting) return;
  state = how;
  changed.notify_all();
}

bool HostLocalWaiter::Expect(mach_port_t right) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (state != State::kWaiting) return false;
  assert(replyRight == MACH_PORT_NULL);  // a request is taken once
  replyRight = right;
  return true;
}

OSStatus HostLocalWaiter::Wait(int64_t deadline, HostFrameSlice* body) {
  mach_port_t right = MACH_PORT_NULL;
  State result = State::kWaiting;
  {
    std::unique_lock<std::mutex> lock(mutex);
    const auto settled = [this] { return state != State::kWaiting; };
    if (deadline == kHostNever) {
      changed.wait(lock, settled);
    } else {
      using Clock = std::chrono::steady_clock;
      changed.wait_until(lock, Clock::time_point(std::chrono::nanoseconds(deadline)), settled);
    }
    if (state == State::kWaiting) state = State::kTimedOut;
    result = state;
    right = std::exchange(replyRight, MACH_PORT_NULL);
    *body = std::move(reply);
  }
  if (right != MACH_PORT_NULL) HostRemoveReplyRight(right);
  if (result == State::kReplied) return 0;
  if (result == State::kFailed) return memFullErr;
  return result == State::kAbandoned ? OSStatus{connectionInvalid} : OSStatus{errAETimeout};
}
