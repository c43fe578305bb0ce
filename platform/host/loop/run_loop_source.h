#pragma once

#include <CoreFoundation/CFRunLoop.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "platform/host/base/mutex.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_string.h"

// Sources and timers, which run loops call. Any thread; run_loop.h has the lock order.

struct __CFRunLoop;

// A source is what a loop serves: a flag that any thread may set (version 0) or a port (version 1).
struct __CFRunLoopSource final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeRunLoopSource;

  __CFRunLoopSource(CFIndex order, const CFRunLoopSourceContext& context);
  __CFRunLoopSource(CFIndex order, const CFRunLoopSourceContext1& context);

  bool IsPort() const { return version == 1; }
  bool IsValid() const { return valid.load(std::memory_order_acquire); }
  CFIndex Order() const { return order; }
  void CopyContext(CFRunLoopSourceContext* out) const;

  void Signal() { signalled.store(true, std::memory_order_release); }
  bool IsSignalled() const { return signalled.load(std::memory_order_acquire); }
  bool TakeSignal() { return signalled.exchange(false, std::memory_order_acq_rel); }
  void Invalidate();

  mach_port_t Port() const;
  void Perform();                                    // version 0
  void PerformMessage(void* message, CFIndex size);  // version 1

  // The loop calls these for each mode that the source is in: Join before it enters, or Forget if
  // it could not enter after all; Scheduled when it has entered, Left when it has been removed. The
  // last two call out. Only Join needs memory.
  void Join(__CFRunLoop* loop, HostCFString* mode);
  bool Forget(__CFRunLoop* loop, HostCFString* mode);  // false if it was not in there
  void Scheduled(__CFRunLoop* loop, HostCFString* mode);
  void Left(__CFRunLoop* loop, HostCFString* mode);

 private:
  struct Membership {
    HostRetained<__CFRunLoop> loop;
    HostRetained<HostCFString> mode;
    bool isLeaving = false;  // an invalidation has taken it up
  };
  void LastRelease() override;
  void KeepInfo() const;

  const CFIndex order;
  const CFIndex version;
  CFRunLoopSourceContext context0 = {};
  CFRunLoopSourceContext1 context1 = {};
  std::atomic<bool> valid{true};
  std::atomic<bool> signalled{false};
  HostMutex mutex;
  std::vector<Membership> memberships;
};

struct __CFRunLoopTimer final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeRunLoopTimer;

  __CFRunLoopTimer(int64_t firstFire, int64_t interval, CFRunLoopTimerCallBack callout,
                   const CFRunLoopTimerContext* context);

  bool IsValid() const { return valid.load(std::memory_order_acquire); }
  // Monotonic nanoseconds; kHostNever once invalid.
  int64_t NextFire() const { return nextFire.load(std::memory_order_acquire); }
  // If the timer is due at `now`: moves on to the next time, or invalidates a timer that fires
  // once, then calls out and returns true.
  bool Fire(int64_t now);
  void Invalidate();

 private:
  void LastRelease() override;

  const int64_t interval;  // ns; 0: fires once
  const CFRunLoopTimerCallBack callout;
  CFRunLoopTimerContext context = {};
  std::atomic<int64_t> nextFire;
  std::atomic<bool> valid{true};
};
