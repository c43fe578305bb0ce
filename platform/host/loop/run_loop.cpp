#include "platform/host/loop/run_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/ports/callout.h"
#include "platform/host/ports/port_table.h"

// The algorithm. A run repeats one pass until it has a reason to end:
//
//   due timers, the earliest first
//   -> signalled sources of version 0, by order, then in the order in which they were added
//   -> messages of ports, one port after the other
//   -> one epoll_wait for the mode's ports and the wake-up file descriptor, which passes what has
//      arrived on to the receivers
//
// The wait ends at the next timer, the next deadline of a port or the end of the run, whichever is
// first. It does not sleep if a source is signalled or a message is complete. Nothing else ends it,
// so an idle loop makes no system call.
//
// Fairness: a pass calls each due timer and each signalled source once. It serves at most
// kMessagesPerPass messages, or for kPassTime, and remembers whose turn is next, so that a port
// with many messages delays neither timers and sources nor other ports.
//
// Changes during a pass: callouts run without the loop's mutex. Before each one the loop therefore
// checks again whether a stop was requested, and takes the next timer or source from the mode as it
// is by then. An earlier callout or another thread may have changed it.
//
// Memory: a pass allocates nothing, so that only an exception of a callout leaves a run.
//
// Nesting: a callout may run the loop again, in this mode or another. It takes what is due; the run
// around it finds the rest. A stop ends the innermost run only. It is kept if no run is under way.
//
// Waking: other threads change the modes under the mutex, or set a flag, and then write to the
// wake-up file descriptor. The thread itself looks at everything again before it waits and writes
// nothing.
//
// Locks: the mutex guards the modes and the lists in them. It comes before a source's mutex and a
// receiver's, and is never held during a callout. Only the loop's own thread runs a mode and
// touches its `turn`; a mode is never removed before the thread ends, so the thread may use one
// without the mutex.

namespace {

constexpr int kEventsPerPoll = 64;
// While messages wait the loop does not sleep, but polls its file descriptors after so many
// messages, or after so long.
constexpr int kMessagesPerPass = 16;
constexpr int64_t kPassTime = kHostMillisecond;

// Epoll data of the wake-up file descriptor; port tags are smaller.
constexpr uint64_t kWakeData = UINT64_MAX;

constinit HostCFString sDefaultMode{"kCFRunLoopDefaultMode"};
constinit HostCFString sCommonModes{"kCFRunLoopCommonModes"};

bool IsCommonModes(const HostCFString* mode) { return mode->Equal(sCommonModes); }

template <class Items, class Item>
auto FindItem(Items& items, const Item* item) {
  return std::find_if(items.begin(), items.end(),
                      [item](const auto& each) { return each.Get() == item; });
}

// The entry of a source in a mode.
template <class Entries>
auto FindEntry(Entries& entries, const __CFRunLoopSource* source) {
  return std::find_if(entries.begin(), entries.end(),
                      [source](const auto& each) { return each.source.Get() == source; });
}

}  // namespace

constinit const CFStringRef kCFRunLoopDefaultMode = &sDefaultMode;
constinit const CFStringRef kCFRunLoopCommonModes = &sCommonModes;

__CFRunLoop::__CFRunLoop(int wake)
    : HostCFObject(kClass), generation(HostForkGeneration()), wakeDescriptor(wake) {
  commonModes.push_back(HostRetained<HostCFString>(&sDefaultMode));
}

__CFRunLoop* __CFRunLoop::Create(bool current) {
  int wake = -1;
  {
    HostDescriptorOpening opening;
    wake = opening.Enter(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), HostDescriptorKind::kWake);
  }
  if (wake < 0) return nullptr;
  auto* const loop = HostGuard<__CFRunLoop*>(nullptr, [wake] { return new __CFRunLoop(wake); });
  if (loop == nullptr) return HostCloseDescriptor(wake), nullptr;
  if (current) loop->BelongToThisThread();
  return loop;
}

bool __CFRunLoop::IsForeign() const { return generation != HostForkGeneration(); }

void __CFRunLoop::Close() {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    commonSources.clear();
    commonTimers.clear();
  }
  // Each source leaves as if it had been removed, so its cancel function runs. One at a time, since
  // tear-down must not need memory.
  for (;;) {
    SourceRef source;
    HostRetained<HostCFString> name;
    {
      const std::lock_guard<HostMutex> lock(mutex);
      for (const auto& mode : modes) {
        if (!mode->sources.empty()) {
          source = mode->sources.front().source;
        } else if (!mode->ports.empty()) {
          source = mode->ports.front().source;
        } else {
          continue;
        }
        name = mode->name;
        break;
      }
    }
    if (!source) break;
    RemoveSourceFromMode(source.Get(), name.Get());
  }
  std::vector<std::unique_ptr<HostRunLoopMode>> closing;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    closing.swap(modes);
  }
  for (const auto& mode : closing) HostCloseDescriptor(mode->epollSet);
}

void __CFRunLoop::LastRelease() {
  for (const auto& mode : modes) HostCloseDescriptor(mode->epollSet);  // made after the close
  HostCloseDescriptor(wakeDescriptor);
  delete this;
}

// Modes and what is in them.

// With the mutex.
HostRunLoopMode* __CFRunLoop::FindMode(HostCFString* name) {
  for (const auto& mode : modes) {
    if (mode->name.Get() == name || mode->name->Equal(*name)) return mode.get();
  }
  return nullptr;
}

// With the mutex. Null if the kernel refuses an epoll set.
HostRunLoopMode* __CFRunLoop::FindOrMakeMode(HostCFString* name) {
  if (HostRunLoopMode* known = FindMode(name)) return known;
  modes.reserve(modes.size() + 1);
  auto mode = std::make_unique<HostRunLoopMode>();
  int epollSet = -1;
  {
    HostDescriptorOpening opening;
    epollSet = opening.Enter(epoll_create1(EPOLL_CLOEXEC), HostDescriptorKind::kEpoll);
  }
  if (epollSet < 0) return nullptr;
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = kWakeData;
  if (epoll_ctl(epollSet, EPOLL_CTL_ADD, wakeDescriptor, &event) != 0) {
    HostCloseDescriptor(epollSet);  // a loop that cannot be woken is worse than none
    return nullptr;
  }
  mode->name = HostRetained<HostCFString>::Retaining(name);
  mode->epollSet = epollSet;
  modes.push_back(std::move(mode));
  return modes.back().get();
}

void __CFRunLoop::AddCommonMode(HostCFString* mode) {
  std::vector<SourceRef> sources;
  std::vector<TimerRef> timers;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    for (const auto& common : commonModes) {
      if (common->Equal(*mode)) return;
    }
    sources = commonSources;
    timers = commonTimers;
    commonModes.push_back(HostRetained<HostCFString>::Retaining(mode));
  }
  for (const SourceRef& source : sources) AddSourceToMode(source.Get(), mode);
  for (const TimerRef& timer : timers) AddTimerToMode(timer.Get(), mode);
}

// Calls `use` with each mode that `mode` means: itself, or all common ones, of which none is ever
// removed. Needs no memory.
template <class Use>
void __CFRunLoop::ForEachMode(HostCFString* mode, Use use) {
  if (!IsCommonModes(mode)) return use(mode);
  for (size_t i = 0;; i++) {
    HostRetained<HostCFString> each;
    {
      const std::lock_guard<HostMutex> lock(mutex);
      if (i == commonModes.size()) return;
      each = commonModes[i];
    }
    use(each.Get());
  }
}

void __CFRunLoop::AddSource(__CFRunLoopSource* source, HostCFString* mode) {
  if (IsCommonModes(mode)) {
    const std::lock_guard<HostMutex> lock(mutex);
    if (FindItem(commonSources, source) != commonSources.end()) return;
    commonSources.push_back(SourceRef::Retaining(source));
  }
  ForEachMode(mode, [&](HostCFString* each) { AddSourceToMode(source, each); });
}

void __CFRunLoop::AddSourceToMode(__CFRunLoopSource* source, HostCFString* modeName) {
  if (!source->IsValid()) return;
  std::shared_ptr<HostReceiver> receiver;
  if (source->IsPort()) {
    receiver = HostReceiverOf(source->Port());
    if (receiver == nullptr) return;
  }
  {
    const std::lock_guard<HostMutex> lock(mutex);
    HostRunLoopMode* mode = FindOrMakeMode(modeName);
    if (mode == nullptr || Contains(*mode, source)) return;
    // Allocates first, so that a lack of memory changes nothing.
    if (source->IsPort()) {
      mode->ports.reserve(mode->ports.size() + 1);
    } else {
      mode->sources.reserve(mode->sources.size() + 1);
    }
    source->Join(this, modeName);
    if (source->IsPort()) {
      const uint32_t tag = ++lastTag;
      if (!HostGuard([&] { receiver->Watch(mode->epollSet, tag, wakeDescriptor); })) {
        source->Forget(this, modeName);
        throw std::bad_alloc();
      }
      mode->ports.push_back({SourceRef::Retaining(source), receiver, tag});
    } else {
      const auto place = std::upper_bound(
          mode->sources.begin(), mode->sources.end(), source->Order(),
          [](CFIndex order, const auto& each) { return order < each.source->Order(); });
      mode->sources.insert(place, {SourceRef::Retaining(source), false});
    }
    mode->NoteChange();
  }
  source->Scheduled(this, modeName);
  // Invalidated meanwhile: the invalidation may have looked for the source before it was here.
  if (!source->IsValid()) RemoveSourceFromMode(source, modeName);
  WakeUp();
}

void __CFRunLoop::RemoveSource(__CFRunLoopSource* source, HostCFString* mode) {
  const SourceRef kept = SourceRef::Retaining(source);
  if (IsCommonModes(mode)) {
    const std::lock_guard<HostMutex> lock(mutex);
    const auto common = FindItem(commonSources, source);
    if (common != commonSources.end()) commonSources.erase(common);
  }
  ForEachMode(mode, [&](HostCFString* each) { RemoveSourceFromMode(source, each); });
}

bool __CFRunLoop::RemoveSourceFromMode(__CFRunLoopSource* source, HostCFString* modeName) {
  const SourceRef kept = SourceRef::Retaining(source);
  {
    const std::lock_guard<HostMutex> lock(mutex);
    HostRunLoopMode* mode = FindMode(modeName);
    if (mode == nullptr || !Contains(*mode, source)) return false;
    if (source->IsPort()) {
      const auto port = FindEntry(mode->ports, source);
      assert(port != mode->ports.end());
      port->receiver->Unwatch(mode->epollSet);
      mode->ports.erase(port);
    } else {
      mode->sources.erase(FindEntry(mode->sources, source));
    }
    mode->NoteChange();
    if (!source->IsValid()) {  // it will not come back with a new common mode either
      const auto common = FindItem(commonSources, source);
      if (common != commonSources.end()) commonSources.erase(common);
    }
  }
  source->Left(this, modeName);
  WakeUp();
  return true;
}

bool __CFRunLoop::Contains(const HostRunLoopMode& mode, __CFRunLoopSource* source) {
  if (source->IsPort()) return FindEntry(mode.ports, source) != mode.ports.end();
  return FindEntry(mode.sources, source) != mode.sources.end();
}

bool __CFRunLoop::ContainsSource(__CFRunLoopSource* source, HostCFString* modeName) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsCommonModes(modeName)) return FindItem(commonSources, source) != commonSources.end();
  const HostRunLoopMode* mode = FindMode(modeName);
  return mode != nullptr && Contains(*mode, source);
}

void __CFRunLoop::AddTimer(__CFRunLoopTimer* timer, HostCFString* mode) {
  if (IsCommonModes(mode)) {
    const std::lock_guard<HostMutex> lock(mutex);
    if (FindItem(commonTimers, timer) != commonTimers.end()) return;
    commonTimers.push_back(TimerRef::Retaining(timer));
  }
  ForEachMode(mode, [&](HostCFString* each) { AddTimerToMode(timer, each); });
}

void __CFRunLoop::AddTimerToMode(__CFRunLoopTimer* timer, HostCFString* modeName) {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    HostRunLoopMode* mode = FindOrMakeMode(modeName);
    if (mode == nullptr || FindItem(mode->timers, timer) != mode->timers.end()) return;
    mode->timers.push_back(TimerRef::Retaining(timer));
    mode->NoteChange();
  }
  WakeUp();
}

void __CFRunLoop::RemoveTimer(__CFRunLoopTimer* timer, HostCFString* modeName) {
  const TimerRef kept = TimerRef::Retaining(timer);
  if (IsCommonModes(modeName)) {
    const std::lock_guard<HostMutex> lock(mutex);
    const auto common = FindItem(commonTimers, timer);
    if (common != commonTimers.end()) commonTimers.erase(common);
  }
  ForEachMode(modeName, [&](HostCFString* each) {
    const std::lock_guard<HostMutex> lock(mutex);
    HostRunLoopMode* mode = FindMode(each);
    if (mode == nullptr) return;
    const auto found = FindItem(mode->timers, timer);
    if (found != mode->timers.end()) mode->timers.erase(found);
    mode->NoteChange();
  });
}

bool __CFRunLoop::ContainsTimer(__CFRunLoopTimer* timer, HostCFString* modeName) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (IsCommonModes(modeName)) return FindItem(commonTimers, timer) != commonTimers.end();
  const HostRunLoopMode* mode = FindMode(modeName);
  return mode != nullptr && FindItem(mode->timers, timer) != mode->timers.end();
}

// Running.

void __CFRunLoop::Stop() {
  // The thread may end, and release its loop, as soon as it sees the request.
  const auto kept = HostRetained<__CFRunLoop>::Retaining(this);
  stopRequested.store(true, std::memory_order_release);
  WakeUp();
}

void __CFRunLoop::WakeUp() {
  // The thread itself checks everything again before it waits.
  if (pthread_equal(owner.load(), pthread_self()) != 0 || IsForeign()) return;
  const uint64_t one = 1;
  (void)!write(wakeDescriptor, &one, sizeof one);
}

bool __CFRunLoop::ShouldEnd(const RunOptions& options) {
  const bool stopped = stopRequested.load(std::memory_order_acquire);
  if (options.until != nullptr) {
    if (stopped) stopRequested.store(false);
    return options.until->load(std::memory_order_acquire);
  }
  return stopped;
}

SInt32 __CFRunLoop::Run(HostCFString* modeName, const RunOptions& options) {
  HostRunLoopMode* mode = nullptr;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    mode = FindMode(modeName);
    if (options.until != nullptr) HostGuard([&] { mode = FindOrMakeMode(modeName); });
  }
  assert(options.until == nullptr || !options.returnAfterSource);
  for (;;) {
    if (ShouldEnd(options)) {
      if (options.until == nullptr) stopRequested.store(false);
      return kCFRunLoopRunStopped;
    }
    // A child that was forked in a callout must not touch its parent's loop.
    if (mode == nullptr || IsForeign()) return kCFRunLoopRunFinished;
    if (options.until == nullptr && IsFinished(*mode)) return kCFRunLoopRunFinished;

    const bool fired = FireTimers(*mode, options);
    bool handled = PerformSources(*mode, options);
    if (!(handled && options.returnAfterSource)) handled |= ServePorts(*mode, options);
    if (ShouldEnd(options)) continue;
    if (handled && options.returnAfterSource) return kCFRunLoopRunHandledSource;
    // A callout may have emptied the mode. Then there is nothing to wait for.
    if ((fired || handled) && options.until == nullptr && IsFinished(*mode)) continue;

    bool pending = false;
    const int64_t earliest = PrepareToWait(*mode, options.deadline, &pending);
    const bool timedOut = options.deadline != kHostNever && HostNow() >= options.deadline;
    Poll(*mode, pending || timedOut ? 0 : earliest);
    if (timedOut) {
      // Serve what the poll has just brought, so that a run of no length serves what is there.
      handled = ServePorts(*mode, options);
      if (ShouldEnd(options)) continue;
      return handled && options.returnAfterSource ? kCFRunLoopRunHandledSource
                                                  : kCFRunLoopRunTimedOut;
    }
  }
}

bool __CFRunLoop::IsFinished(HostRunLoopMode& mode) {
  if (mode.hasPorts.load(std::memory_order_acquire) && !mode.hasTimers.load()) return false;
  // One at a time: a run needs no memory, and the last release calls out.
  while (TakeInvalidTimer()) {
  }
  const std::lock_guard<HostMutex> lock(mutex);
  return mode.IsEmpty();
}

// Removes a timer that has become invalid, if there is one.
__CFRunLoop::TimerRef __CFRunLoop::TakeInvalidTimer() {
  const auto take = [](std::vector<TimerRef>& timers) {
    TimerRef taken;
    const auto found = std::find_if(timers.begin(), timers.end(),
                                    [](const auto& timer) { return !timer->IsValid(); });
    if (found == timers.end()) return taken;
    taken = std::move(*found);
    timers.erase(found);
    return taken;
  };
  const std::lock_guard<HostMutex> lock(mutex);
  if (TimerRef taken = take(commonTimers)) return taken;
  for (const auto& mode : modes) {
    if (TimerRef taken = take(mode->timers)) {
      mode->NoteChange();
      return taken;
    }
  }
  return TimerRef();
}

bool __CFRunLoop::FireTimers(HostRunLoopMode& mode, const RunOptions& options) {
  if (!mode.hasTimers.load(std::memory_order_acquire)) return false;
  const int64_t now = HostNow();
  bool fired = false;
  // A timer that has fired is due after `now`, or never again, so each comes once.
  while (!ShouldEnd(options)) {
    TimerRef due;
    {
      // Looked for again each time: an earlier callout may have removed one, or fired it in a run
      // of its own.
      const std::lock_guard<HostMutex> lock(mutex);
      int64_t earliest = now;
      for (const TimerRef& timer : mode.timers) {
        const int64_t next = timer->NextFire();
        if (next < earliest || (next == earliest && !due)) {
          due = timer;
          earliest = next;
        }
      }
    }
    if (!due) break;
    fired |= due->Fire(now);
  }
  return fired;
}

bool __CFRunLoop::PerformSources(HostRunLoopMode& mode, const RunOptions& options) {
  if (!mode.hasSources.load(std::memory_order_acquire)) return false;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    for (auto& each : mode.sources) each.isDue = each.source->IsSignalled();
  }
  bool handled = false;
  while (!ShouldEnd(options)) {
    SourceRef source;
    {
      const std::lock_guard<HostMutex> lock(mutex);
      const auto due = std::find_if(mode.sources.begin(), mode.sources.end(),
                                    [](const auto& each) { return each.isDue; });
      if (due == mode.sources.end()) break;
      due->isDue = false;
      source = due->source;
    }
    if (!source->IsValid() || !source->TakeSignal()) continue;
    source->Perform();
    handled = true;
    if (options.returnAfterSource) break;
  }
  return handled;
}

bool __CFRunLoop::ServePorts(HostRunLoopMode& mode, const RunOptions& options) {
  const int limit = options.returnAfterSource ? 1 : kMessagesPerPass;
  int64_t end = 0;
  int served = 0;
  while (served < limit && !ShouldEnd(options) && ServeOneMessage(mode)) {
    served++;
    if (served == limit || !HasMessages(mode)) break;  // mostly so: then the clock is not read
    const int64_t now = HostNow();
    if (served == 1) end = now + kPassTime;
    if (now >= end) break;
  }
  return served > 0;
}

bool __CFRunLoop::HasMessages(HostRunLoopMode& mode) {
  const std::lock_guard<HostMutex> lock(mutex);
  return std::any_of(mode.ports.begin(), mode.ports.end(),
                     [](const auto& port) { return port.receiver->HasMessages(); });
}

// Serves one message of the port whose turn it is. Returns false if no port has any.
bool __CFRunLoop::ServeOneMessage(HostRunLoopMode& mode) {
  if (IsForeign()) return false;
  SourceRef source;
  std::shared_ptr<HostReceiver> receiver;
  HostMessage message;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    const size_t count = mode.ports.size();
    for (size_t i = 0; i < count && receiver == nullptr; i++) {
      HostRunLoopMode::PortEntry& port = mode.ports[(mode.turn + i) % count];
      // Check the source before taking the message: a message that has been taken must be served,
      // or its sender would wait in vain. If the source is invalidated after this check, the
      // callout counts as already begun.
      if (!port.source->IsValid() || !port.receiver->HasMessages()) continue;
      if (!port.receiver->TakeMessage(&message)) continue;
      mode.turn = (mode.turn + i + 1) % count;
      receiver = port.receiver;
      source = port.source;
    }
  }
  assert((receiver == nullptr) == !source);
  if (receiver == nullptr) return false;
  HostCallout callout(std::move(receiver), &message);
  source->PerformMessage(callout.Header(), static_cast<CFIndex>(callout.Header()->msgh_size));
  return true;
}

// When the loop must look again at the latest. `*pending`: at once. Ports take this for the report
// that the loop is about to wait (see HostReceiver::PrepareToSleep).
int64_t __CFRunLoop::PrepareToWait(HostRunLoopMode& mode, int64_t deadline, bool* pending) {
  const std::lock_guard<HostMutex> lock(mutex);
  int64_t earliest = deadline;
  for (const TimerRef& timer : mode.timers) earliest = std::min(earliest, timer->NextFire());
  for (const auto& each : mode.sources) *pending |= each.source->IsSignalled();
  for (const auto& port : mode.ports) {
    *pending |= port.receiver->PrepareToSleep(mode.epollSet);
    earliest = std::min(earliest, port.receiver->Deadline());
  }
  return earliest;
}

void __CFRunLoop::Poll(HostRunLoopMode& mode, int64_t deadline) {
  epoll_event events[kEventsPerPoll];
  int timeout = -1;
  if (deadline != kHostNever) timeout = HostMillisecondsUntil(deadline, HostNow());
  if (timeout != 0) waiting.store(true, std::memory_order_release);
  const int count = epoll_wait(mode.epollSet, events, kEventsPerPoll, timeout);
  waiting.store(false, std::memory_order_release);
  WakePorts(mode);
  for (int i = 0; i < count; i++) HandleEvent(mode, events[i].data.u64, events[i].events);
  if (deadline != kHostNever) HandleDeadlines(mode);
}

void __CFRunLoop::WakePorts(HostRunLoopMode& mode) {
  const std::lock_guard<HostMutex> lock(mutex);
  for (const auto& port : mode.ports) port.receiver->WakeUp(mode.epollSet);
}

void __CFRunLoop::HandleEvent(HostRunLoopMode& mode, uint64_t data, uint32_t events) {
  if (data == kWakeData) {
    uint64_t count = 0;
    (void)!read(wakeDescriptor, &count, sizeof count);
    return;
  }
  std::shared_ptr<HostReceiver> receiver;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    const auto tag = static_cast<uint32_t>(data >> 32);
    for (const auto& port : mode.ports) {
      if (port.tag == tag) receiver = port.receiver;
    }
  }
  if (receiver != nullptr) receiver->HandleEvent(static_cast<uint32_t>(data), events);
}

// Lets receivers do what they do at a time: retry, give up, end.
void __CFRunLoop::HandleDeadlines(HostRunLoopMode& mode) {
  const std::lock_guard<HostMutex> lock(mutex);
  for (const auto& port : mode.ports) {
    const int64_t due = port.receiver->Deadline();
    if (due == kHostNever) continue;
    const int64_t now = HostNow();
    if (due <= now) port.receiver->HandleDeadline(now);
  }
}
