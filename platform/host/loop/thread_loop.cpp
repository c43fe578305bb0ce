#include "platform/host/loop/thread_loop.h"

#include <CoreFoundation/CFRunLoop.h>
#include <unistd.h>

#include <mutex>

#include "platform/host/base/clock.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/thread_object.h"
#include "platform/host/loop/run_loop.h"

// The loops of threads, and running the calling thread's loop.

namespace {

constinit std::mutex sMainMutex;
constinit __CFRunLoop* sMainLoop = nullptr;  // one reference, never given back

bool IsMainThread() { return getpid() == gettid(); }

// The main loop. The first thread that needs it creates it.
__CFRunLoop* MainLoop() {
  const std::lock_guard<std::mutex> lock(sMainMutex);
  if (sMainLoop == nullptr || sMainLoop->IsForeign()) {
    sMainLoop = __CFRunLoop::Create(IsMainThread());
  } else if (IsMainThread()) {
    sMainLoop->BelongToThisThread();
  }
  return sMainLoop;
}

// A thread's reference to its loop, which leaves everything when the thread ends.
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

CFRunLoopRef CFRunLoopGetMain(void) {
  return HostGuard<CFRunLoopRef>(nullptr, [] { return MainLoop(); });
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
