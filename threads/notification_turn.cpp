#include "threads/notification_turn.h"

#include <chrono>

template <class Done>
bool NotificationTurn::Wait(std::unique_lock<std::mutex>& lock, Duration timeout, Done done) {
  if (timeout == kDurationForever) {
    changed.wait(lock, done);
    return true;
  }
  const int64_t wide = timeout;
  const std::chrono::microseconds length(wide < 0 ? -wide : wide * 1000);
  return changed.wait_until(lock, std::chrono::steady_clock::now() + length, done);
}

void NotificationTurn::Take() {
  holder = std::this_thread::get_id();
  depth++;
}

OSStatus NotificationTurn::Begin(Duration timeout) {
  std::unique_lock<std::mutex> lock(mutex);
  if (!Wait(lock, timeout, [this] { return !IsOthers(); })) return kMPTimeoutErr;
  Take();
  return noErr;
}

bool NotificationTurn::BeginUnlessHandled(uint32_t ticket, Duration timeout, OSStatus* err) {
  std::unique_lock<std::mutex> lock(mutex);
  const auto isOver = [this, ticket] { return handled != ticket || !IsOthers(); };
  const bool inTime = Wait(lock, timeout, isOver);
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
