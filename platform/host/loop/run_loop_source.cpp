#include "platform/host/loop/run_loop_source.h"

#include <algorithm>
#include <cassert>
#include <new>

#include "platform/host/base/clock.h"
#include "platform/host/loop/run_loop.h"

namespace {

// Converts seconds to nanoseconds; a value that does not fit stands for ever.
int64_t NanosecondsOf(CFTimeInterval seconds) {
  if (!(seconds > 0)) return 0;
  const double nanoseconds = seconds * 1e9;
  return nanoseconds >= 9.2e18 ? kHostNever : static_cast<int64_t>(nanoseconds);
}

}  // namespace

// Sources.

__CFRunLoopSource::__CFRunLoopSource(CFIndex order, const CFRunLoopSourceContext& context)
    : HostCFObject(kClass), order(order), version(0), context0(context) {
  KeepInfo();
}

__CFRunLoopSource::__CFRunLoopSource(CFIndex order, const CFRunLoopSourceContext1& context)
    : HostCFObject(kClass), order(order), version(1), context1(context) {
  KeepInfo();
}

void __CFRunLoopSource::KeepInfo() const {
  if (version == 0 && context0.retain != nullptr) context0.retain(context0.info);
  if (version == 1 && context1.retain != nullptr) context1.retain(context1.info);
}

void __CFRunLoopSource::LastRelease() {
  if (version == 0 && context0.release != nullptr) context0.release(context0.info);
  if (version == 1 && context1.release != nullptr) context1.release(context1.info);
  delete this;
}

void __CFRunLoopSource::CopyContext(CFRunLoopSourceContext* out) const {
  if (version == 0 && out->version == 0) *out = context0;
  if (version == 1 && out->version == 1) {
    *reinterpret_cast<CFRunLoopSourceContext1*>(out) = context1;
  }
}

mach_port_t __CFRunLoopSource::Port() const {
  return context1.getPort == nullptr ? MACH_PORT_NULL : context1.getPort(context1.info);
}

void __CFRunLoopSource::Perform() {
  if (context0.perform != nullptr) context0.perform(context0.info);
}

void __CFRunLoopSource::PerformMessage(void* message, CFIndex size) {
  if (context1.perform == nullptr) return;
  context1.perform(message, size, kCFAllocatorDefault, context1.info);
}

void __CFRunLoopSource::Join(__CFRunLoop* loop, HostCFString* mode) {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    memberships.push_back(
        {HostRetained<__CFRunLoop>::Retaining(loop), HostRetained<HostCFString>::Retaining(mode)});
  }
}

void __CFRunLoopSource::Scheduled(__CFRunLoop* loop, HostCFString* mode) {
  if (context0.schedule != nullptr) context0.schedule(context0.info, loop, mode);
}

bool __CFRunLoopSource::Forget(__CFRunLoop* loop, HostCFString* mode) {
  Membership left;  // released without the lock
  {
    const std::lock_guard<HostMutex> lock(mutex);
    const auto found =
        std::find_if(memberships.begin(), memberships.end(), [loop, mode](const Membership& each) {
          return each.loop.Get() == loop && each.mode->Equal(*mode);
        });
    if (found == memberships.end()) return false;
    left = std::move(*found);
    memberships.erase(found);
  }
  return true;
}

void __CFRunLoopSource::Left(__CFRunLoop* loop, HostCFString* mode) {
  if (!Forget(loop, mode)) return;
  if (context0.cancel != nullptr) context0.cancel(context0.info, loop, mode);
}

void __CFRunLoopSource::Invalidate() {
  if (!valid.exchange(false, std::memory_order_acq_rel)) return;
  // Leaves one loop at a time, because a list of them would need memory. A membership that another
  // thread is removing at this moment is still listed, so each is marked and taken once.
  for (;;) {
    Membership leaving;
    {
      const std::lock_guard<HostMutex> lock(mutex);
      const auto next = std::find_if(memberships.begin(), memberships.end(),
                                     [](const Membership& each) { return !each.isLeaving; });
      if (next == memberships.end()) return;
      next->isLeaving = true;
      leaving = *next;
    }
    leaving.loop->RemoveSource(this, leaving.mode.Get());
  }
}

// Timers.

__CFRunLoopTimer::__CFRunLoopTimer(int64_t firstFire, int64_t interval,
                                   CFRunLoopTimerCallBack callout,
                                   const CFRunLoopTimerContext* given)
    : HostCFObject(kClass), interval(interval), callout(callout), nextFire(firstFire) {
  if (given == nullptr) return;
  context = *given;
  if (context.retain != nullptr) context.retain(context.info);
}

void __CFRunLoopTimer::LastRelease() {
  if (context.release != nullptr) context.release(context.info);
  delete this;
}

bool __CFRunLoopTimer::Fire(int64_t now) {
  assert(interval >= 0 && now != kHostNever);
  int64_t due = NextFire();
  if (due > now) return false;  // invalid, or fired meanwhile
  if (interval == 0) {
    Invalidate();
  } else {
    // Skip the times that were missed, and keep to the multiples of the interval.
    const int64_t missed = (now - due) / interval;
    const int64_t next = HostDeadlineAfter(due + missed * interval, interval);
    // This fails if another thread has invalidated the timer. It must stay invalid.
    if (!nextFire.compare_exchange_strong(due, next, std::memory_order_acq_rel)) return false;
  }
  if (callout != nullptr) callout(this, context.info);
  return true;
}

void __CFRunLoopTimer::Invalidate() {
  valid.store(false, std::memory_order_release);
  nextFire.store(kHostNever, std::memory_order_release);
}

// The platform calls.

CFTypeID CFRunLoopSourceGetTypeID(void) { return kHostTypeRunLoopSource; }

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef, CFIndex order,
                                         CFRunLoopSourceContext* context) {
  if (context == nullptr) return nullptr;
  if (context->version == 0) return new (std::nothrow) __CFRunLoopSource(order, *context);
  if (context->version != 1) return nullptr;
  auto* const context1 = reinterpret_cast<CFRunLoopSourceContext1*>(context);
  return new (std::nothrow) __CFRunLoopSource(order, *context1);
}

CFIndex CFRunLoopSourceGetOrder(CFRunLoopSourceRef ref) {
  const auto* source = HostCast<__CFRunLoopSource>(ref);
  return source == nullptr ? 0 : source->Order();
}

void CFRunLoopSourceGetContext(CFRunLoopSourceRef ref, CFRunLoopSourceContext* context) {
  const auto* source = HostCast<__CFRunLoopSource>(ref);
  if (source != nullptr && context != nullptr) source->CopyContext(context);
}

void CFRunLoopSourceSignal(CFRunLoopSourceRef ref) {
  auto* source = HostCast<__CFRunLoopSource>(ref);
  if (source != nullptr && source->IsValid()) source->Signal();
}

void CFRunLoopSourceInvalidate(CFRunLoopSourceRef ref) {
  const auto source = HostRetained<__CFRunLoopSource>::Retaining(HostCast<__CFRunLoopSource>(ref));
  if (source) source->Invalidate();
}

Boolean CFRunLoopSourceIsValid(CFRunLoopSourceRef ref) {
  const auto* source = HostCast<__CFRunLoopSource>(ref);
  return source != nullptr && source->IsValid();
}

CFTypeID CFRunLoopTimerGetTypeID(void) { return kHostTypeRunLoopTimer; }

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags, CFIndex,
                                       CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* context) {
  const int64_t wait = NanosecondsOf(fireDate - CFAbsoluteTimeGetCurrent());
  return new (std::nothrow) __CFRunLoopTimer(HostDeadlineAfter(HostNow(), wait),
                                             NanosecondsOf(interval), callout, context);
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef ref) {
  if (auto* timer = HostCast<__CFRunLoopTimer>(ref)) timer->Invalidate();
}

Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef ref) {
  const auto* timer = HostCast<__CFRunLoopTimer>(ref);
  return timer != nullptr && timer->IsValid();
}
