#include <CoreFoundation/CFRunLoop.h>
#include <unistd.h>
#include <ctime>

#include <atomic>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/thread_object.h"
#include "platform/host/loop/run_loop.h"
#include "platform/host/loop/thread_loop.h"

namespace {

constexpr double kUnixEpochOfReference = 978307200;  // 2001-01-01 in seconds since 1970

constinit std::mutex sMainMutex;
constinit __CFRunLoop* sMainLoop = nullptr;  // one reference, never given back

bool IsMainThread() { return getpid() == gettid(); }

// The main loop, made by whoever asks first.
__CFRunLoop* MainLoop() {
  const std::lock_guard<std::mutex> lock(sMainMutex);
  if (sMainLoop == nullptr || sMainLoop->IsForeign()) {
    sMainLoop = __CFRunLoop::Create(IsMainThread());
  } else if (IsMainThread()) {
    sMainLoop->BelongToThisThread();
  }
  return sMainLoop;
}

// The thread's hold on its loop.
struct ThreadLoop {
  __CFRunLoop* loop = nullptr;

  ~ThreadLoop() {
    if (loop == nullptr || loop->IsForeign()) return;
    loop->Close();
    loop->Release();
  }
};

ThreadLoop& OwnLoop() { return HostThreadObject<ThreadLoop>(); }

// Counts a run, also one that an exception ends.
struct LoopRun {
  __CFRunLoop* loop;

  explicit LoopRun(__CFRunLoop* running) : loop(running) { loop->runs++; }
  ~LoopRun() { loop->runs--; }
};

SInt32 RunFor(HostCFString* mode, CFTimeInterval seconds, bool returnAfterSource) {
  __CFRunLoop* loop = CFRunLoopGetCurrent();
  if (loop == nullptr) return kCFRunLoopRunFinished;
  const LoopRun counted(loop);
  __CFRunLoop::RunOptions options{kHostNever, returnAfterSource};
  if (seconds < 9e9) {
    const double wait = seconds > 0 ? seconds * 1e9 : 0;
    options.deadline = HostDeadlineAfter(HostNow(), static_cast<int64_t>(wait));
  }
  return loop->Run(mode, options);
}

}  // namespace

bool HostRunMainLoopUntil(const std::atomic<bool>& flag) {
  __CFRunLoop* loop = CFRunLoopGetCurrent();
  if (loop == nullptr) return false;
  const LoopRun counted(loop);
  __CFRunLoop::RunOptions options{kHostNever, false, &flag};
  loop->Run(HostCast<HostCFString>(kCFRunLoopDefaultMode), options);
  return true;
}

bool HostMainLoopIsRunning() {
  const std::lock_guard lock(sMainMutex);
  return sMainLoop != nullptr && !sMainLoop->IsForeign() && sMainLoop->runs.load() > 0;
}

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) - kUnixEpochOfReference +
         static_cast<double>(now.tv_nsec) / 1e9;
}

CFTypeID CFRunLoopGetTypeID(void) { return kHostTypeRunLoop; }

CFRunLoopRef CFRunLoopGetCurrent(void) {
  return HostGuard<CFRunLoopRef>(nullptr, [] {
    ThreadLoop& own = OwnLoop();
    // A forked child leaves its parent's loop alone and gets one of its own.
    if (own.loop == nullptr || own.loop->IsForeign()) {
      own.loop = IsMainThread() ? MainLoop() : __CFRunLoop::Create(true);
      if (own.loop != nullptr && IsMainThread()) own.loop->Retain();
    }
    return own.loop;
  });
}

CFRunLoopRef CFRunLoopGetMain(void) { return MainLoop(); }

void CFRunLoopAddCommonMode(CFRunLoopRef ref, CFStringRef modeRef) {
  auto* loop = HostCast<__CFRunLoop>(ref);
  auto* mode = HostCast<HostCFString>(modeRef);
  if (loop != nullptr && mode != nullptr) HostGuard([&] { loop->AddCommonMode(mode); });
}

void CFRunLoopRun(void) {
  auto* mode = HostCast<HostCFString>(kCFRunLoopDefaultMode);
  SInt32 result;
  do {
    result = RunFor(mode, 1e10, false);
  } while (result != kCFRunLoopRunStopped && result != kCFRunLoopRunFinished);
}

SInt32 CFRunLoopRunInMode(CFStringRef modeRef, CFTimeInterval seconds,
                          Boolean returnAfterSourceHandled) {
  auto* mode = HostCast<HostCFString>(modeRef);
  if (mode == nullptr) return kCFRunLoopRunFinished;
  return RunFor(mode, seconds, returnAfterSourceHandled != 0);
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
  // Of several common modes some may have it by then.
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
