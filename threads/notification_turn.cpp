#include "threads/notification_turn.h"

#include <limits>

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

microseconds LengthOf(Duration timeout) {
  const int64_t wide = timeout;
  return microseconds(wide < 0 ? -wide : wide * 1000);
}

}  // namespace

WaitLimit::WaitLimit(Duration timeout)
    : isForever(timeout == kDurationForever),
      end(isForever ? steady_clock::time_point::max() : steady_clock::now() + LengthOf(timeout)) {}

Duration WaitLimit::Left() const {
  if (isForever) return kDurationForever;
  const auto left = std::chrono::ceil<microseconds>(end - steady_clock::now()).count();
  if (left <= 0) return kDurationImmediate;
  // Microseconds while they fit.
  if (left <= std::numeric_limits<Duration>::max()) return static_cast<Duration>(-left);
  return static_cast<Duration>((left + 999) / 1000);
}

template <class Done>
bool NotificationTurn::Wait(std::unique_lock<std::mutex>& lock, const WaitLimit& limit, Done done) {
  if (!limit.IsForever()) return changed.wait_until(lock, limit.End(), done);
  changed.wait(lock, done);
  return true;
}

void NotificationTurn::Take() {
  holder = std::this_thread::get_id();
  depth++;
}

OSStatus NotificationTurn::Begin(const WaitLimit& limit) {
  std::unique_lock<std::mutex> lock(mutex);
  if (!Wait(lock, limit, [this] { return !IsOthers(); })) return kMPTimeoutErr;
  Take();
  return noErr;
}

bool NotificationTurn::BeginUnlessHandled(uint32_t ticket, const WaitLimit& limit, OSStatus* err) {
  std::unique_lock<std::mutex> lock(mutex);
  const auto isOver = [this, ticket] { return handled != ticket || !IsOthers(); };
  const bool inTime = Wait(lock, limit, isOver);
  *err = inTime ? OSStatus{noErr} : OSStatus{kMPTimeoutErr};
  if (!inTime || handled != ticket) return false;
  Take();
  return true;
}

void NotificationTurn::End() {
  const std::lock_guard<std::mutex> lock(mutex);
  depth--;
  handled++;
  changed.notify_all();
}

uint32_t NotificationTurn::Handled() {
  const std::lock_guard<std::mutex> lock(mutex);
  return handled;
}

bool NotificationTurn::IsCallers() {
  const std::lock_guard<std::mutex> lock(mutex);
  return depth > 0 && !IsOthers();
}
