#include <CoreFoundation/CFRunLoop.h>

#include <ctime>

#include "platform/host/base/guard.h"
#include "platform/host/loop/run_loop.h"

// The calls on loops of any thread.

namespace {

constexpr double kUnixEpochOfReference = 978307200;  // 2001-01-01 in seconds since 1970

}  // namespace

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) - kUnixEpochOfReference +
         static_cast<double>(now.tv_nsec) / 1e9;
}

CFTypeID CFRunLoopGetTypeID(void) { return kHostTypeRunLoop; }

void CFRunLoopAddCommonMode(CFRunLoopRef ref, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop != nullptr && mode != nullptr) HostGuard([&] { loop->AddCommonMode(mode); });
}

void CFRunLoopStop(CFRunLoopRef ref) {
  if (auto* loop = HostCast<__CFRunLoop>(ref)) loop->Stop();
}

void CFRunLoopWakeUp(CFRunLoopRef ref) {
  if (auto* loop = HostCast<__CFRunLoop>(ref)) loop->WakeUp();
}

Boolean CFRunLoopIsWaiting(CFRunLoopRef ref) {
  const auto* loop = HostCast<__CFRunLoop>(ref);
  return loop != nullptr && loop->IsWaiting();
}

void CFRunLoopAddSource(CFRunLoopRef ref, CFRunLoopSourceRef sourceRef, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* source = HostCast<__CFRunLoopSource>(sourceRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop == nullptr || source == nullptr || mode == nullptr) return;
  // The source may be in some of several common modes by then.
  if (!HostGuard([&] { loop->AddSource(source, mode); })) loop->RemoveSource(source, mode);
}

void CFRunLoopRemoveSource(CFRunLoopRef ref, CFRunLoopSourceRef sourceRef, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* source = HostCast<__CFRunLoopSource>(sourceRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop != nullptr && source != nullptr && mode != nullptr) loop->RemoveSource(source, mode);
}

Boolean CFRunLoopContainsSource(CFRunLoopRef ref, CFRunLoopSourceRef sourceRef,
                                CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* source = HostCast<__CFRunLoopSource>(sourceRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop == nullptr || source == nullptr || mode == nullptr) return false;
  return loop->ContainsSource(source, mode);
}

void CFRunLoopAddTimer(CFRunLoopRef ref, CFRunLoopTimerRef timerRef, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* timer = HostCast<__CFRunLoopTimer>(timerRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop == nullptr || timer == nullptr || mode == nullptr) return;
  if (!HostGuard([&] { loop->AddTimer(timer, mode); })) loop->RemoveTimer(timer, mode);
}

void CFRunLoopRemoveTimer(CFRunLoopRef ref, CFRunLoopTimerRef timerRef, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* timer = HostCast<__CFRunLoopTimer>(timerRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop != nullptr && timer != nullptr && mode != nullptr) loop->RemoveTimer(timer, mode);
}

Boolean CFRunLoopContainsTimer(CFRunLoopRef ref, CFRunLoopTimerRef timerRef, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* timer = HostCast<__CFRunLoopTimer>(timerRef);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop == nullptr || timer == nullptr || mode == nullptr) return false;
  return loop->ContainsTimer(timer, mode);
}
