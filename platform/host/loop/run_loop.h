#pragma once

#include <CoreFoundation/CFRunLoop.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/host/base/mutex.h"
#include "platform/host/loop/run_loop_source.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/ports/receiver.h"

// The room of run loops: sources, timers, loops and the ports they serve (cf_mach_port.cpp), and
// the application event loop. run_loop.cpp opens with the algorithm.
//
// Any thread may use these objects; a loop is run only by the thread that it belongs to. Lock
// order: a loop's mutex, then a source's, then a receiver's. None is held during a callout.

// A mode is a set of sources, timers and ports that a loop serves together. The ports enter their
// file descriptors into its epoll set.
struct HostRunLoopMode {
  struct SourceEntry {
    HostRetained<__CFRunLoopSource> source;
    bool isDue;  // in the pass under way; a nested run decides it again
  };
  struct PortEntry {
    HostRetained<__CFRunLoopSource> source;
    std::shared_ptr<HostReceiver> receiver;
    uint32_t tag;  // stands for the entry in epoll data
  };

  HostRetained<HostCFString> name;
  int epollSet = -1;
  std::vector<SourceEntry> sources;  // version 0, lower order first
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

  // Returns null if the kernel refuses the wake-up file descriptor or memory is short. The loop
  // belongs to the calling thread if `current`.
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
  bool IsForeign() const;  // inherited from the parent by a fork

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
  TimerRef TakeInvalidTimer();
  bool FireTimers(HostRunLoopMode& mode, const RunOptions& options);
  bool PerformSources(HostRunLoopMode& mode, const RunOptions& options);
  bool ServePorts(HostRunLoopMode& mode, const RunOptions& options);
  bool ServeOneMessage(HostRunLoopMode& mode);
  bool HasMessages(HostRunLoopMode& mode);
  bool Contains(const HostRunLoopMode& mode, __CFRunLoopSource* source);
  int64_t PrepareToWait(HostRunLoopMode& mode, int64_t deadline, bool* pending);
  void WakePorts(HostRunLoopMode& mode);
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
