#pragma once

#include <CoreFoundation/CFRunLoop.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/host/base/mutex.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/ports/receiver.h"

// The room of run loops: sources, timers, loops and the ports they serve (cf_mach_port.cpp), and
// the application event loop. run_loop.cpp opens with the algorithm.
//
// Any thread may use these objects; a loop is run only by the thread that it belongs to. Lock
// order: a loop's mutex, then a source's, then a receiver's. None is held during a callout.

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

  // What the loop reports of each mode that the source is in: Join before it enters, or Forget if
  // it could not enter after all; Scheduled when it has entered, Left when it has been removed.
  // The last two call out. Only Join needs memory.
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

// A mode is what a loop serves together. Its ports enter their file descriptors into its epoll set.
struct HostRunLoopMode {
  struct PortEntry {
    HostRetained<__CFRunLoopSource> source;
    std::shared_ptr<HostReceiver> receiver;
    uint32_t tag;  // stands for the entry in epoll data
  };

  HostRetained<HostCFString> name;
  int epollSet = -1;
  std::vector<HostRetained<__CFRunLoopSource>> sources;  // version 0, lower order first
  std::vector<PortEntry> ports;
  std::vector<HostRetained<__CFRunLoopTimer>> timers;
  size_t turn = 0;  // the port that is served next
  // Whether the lists have entries, readable without the loop's mutex.
  std::atomic<bool> hasSources{false};
  std::atomic<bool> hasPorts{false};
  std::atomic<bool> hasTimers{false};

  bool IsEmpty() const { return sources.empty() && ports.empty() && timers.empty(); }
  void NoteChange() {
    hasSources.store(!sources.empty(), std::memory_order_release);
    hasPorts.store(!ports.empty(), std::memory_order_release);
    hasTimers.store(!timers.empty(), std::memory_order_release);
  }
};

// A thread's loop. Until it ends, the thread owns the loop, and with it everything that is added.
struct __CFRunLoop final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeRunLoop;

  // Null if the kernel refuses the wake-up descriptor or memory is short. The loop belongs to the
  // calling thread if `current`.
  static __CFRunLoop* Create(bool current);
  // Removes everything; called when the thread ends.
  void Close();

  struct RunOptions {
    int64_t deadline;
    bool returnAfterSource = false;
    // Set for the application event loop, which ends with this flag, not with a stop or an empty
    // mode.
    const std::atomic<bool>* until = nullptr;
  };
  SInt32 Run(HostCFString* modeName, const RunOptions& options);
  void Stop();
  void WakeUp();
  bool IsWaiting() const { return waiting.load(std::memory_order_acquire); }
  std::atomic<int> runs{0};  // under way, nested ones too; counted by the callers of Run
  void BelongToThisThread() { owner.store(pthread_self()); }
  bool IsForeign() const;  // of a process that forked us

  void AddCommonMode(HostCFString* mode);
  // `mode` may be the pseudo-mode of all common modes.
  void AddSource(__CFRunLoopSource* source, HostCFString* mode);
  void RemoveSource(__CFRunLoopSource* source, HostCFString* mode);
  bool ContainsSource(__CFRunLoopSource* source, HostCFString* mode);
  void AddTimer(__CFRunLoopTimer* timer, HostCFString* mode);
  void RemoveTimer(__CFRunLoopTimer* timer, HostCFString* mode);
  bool ContainsTimer(__CFRunLoopTimer* timer, HostCFString* mode);

 private:
  using SourceRef = HostRetained<__CFRunLoopSource>;
  using TimerRef = HostRetained<__CFRunLoopTimer>;

  explicit __CFRunLoop(int wake);
  void LastRelease() override;

  HostRunLoopMode* FindMode(HostCFString* name);
  HostRunLoopMode* FindOrMakeMode(HostCFString* name);
  template <class Use>
  void ForEachMode(HostCFString* mode, Use use);
  void AddSourceToMode(__CFRunLoopSource* source, HostCFString* mode);
  bool RemoveSourceFromMode(__CFRunLoopSource* source, HostCFString* mode);
  void AddTimerToMode(__CFRunLoopTimer* timer, HostCFString* mode);

  bool ShouldEnd(const RunOptions& options);
  bool IsFinished(HostRunLoopMode& mode);
  bool FireTimers(HostRunLoopMode& mode, const RunOptions& options);
  bool PerformSources(HostRunLoopMode& mode, const RunOptions& options);
  bool ServePorts(HostRunLoopMode& mode, const RunOptions& options);
  bool ServeOneMessage(HostRunLoopMode& mode);
  bool HasMessages(HostRunLoopMode& mode);
  bool Contains(const HostRunLoopMode& mode, __CFRunLoopSource* source);
  int64_t EarliestDeadline(HostRunLoopMode& mode, int64_t deadline, bool* pending);
  void Poll(HostRunLoopMode& mode, int64_t deadline);
  void HandleEvent(HostRunLoopMode& mode, uint64_t data, uint32_t events);
  void HandleDeadlines(HostRunLoopMode& mode);

  const uint32_t generation;
  const int wakeDescriptor;
  std::atomic<pthread_t> owner{};
  std::atomic<bool> stopRequested{false};
  std::atomic<bool> waiting{false};

  HostMutex mutex;
  std::vector<std::unique_ptr<HostRunLoopMode>> modes;
  std::vector<HostRetained<HostCFString>> commonModes;
  std::vector<SourceRef> commonSources;
  std::vector<TimerRef> commonTimers;
  uint32_t lastTag = 0;
};
