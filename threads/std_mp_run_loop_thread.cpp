#include "threads/std_mp_run_loop_thread.h"

#include <utility>

#include "util/errno_status.h"
#include "util/first_error.h"

namespace {

constexpr SInt32 kPending = 1;  // what a result word holds until the call was served

SInt32 StatusOfErrno(int error) { return error == 0 ? 0 : ErrnoToOSStatus(error); }

}  // namespace

VLTStdMPRunLoopThread::VLTStdMPRunLoopThread() : VLTStdMPThread(nullptr, nullptr, 0, 0) {}

VLTStdMPRunLoopThread::~VLTStdMPRunLoopThread() {
  pthread_cond_destroy(&syncCondition);
  pthread_mutex_destroy(&syncMutex);
}

// Mutex and condition are valid since construction, so there is nothing to make that could fail.
SInt32 VLTStdMPRunLoopThread::Initialize() {
  const SInt32 err = VLTStdMPThread::Initialize();
  if (err == 0) locks.AcquireLock(kVLTThreadEventLock);
  return err;
}

// Meant: lock 4 goes before the base class stops the thread, which needs mutex and condition once
// more. So they stay usable, until the destructor.
SInt32 VLTStdMPRunLoopThread::Finalize(SInt32 error) {
  locks.ReleaseLock(kVLTThreadEventLock);
  return VLTStdMPThread::Finalize(error);
}

// Starting and stopping.

// A run that ends clears its identity before its task id: it is waited for.
SInt32 VLTStdMPRunLoopThread::StartThreadIfNeeded() {
  if (HasThreadPort()) return 0;
  SInt32 err = WaitWhileEnding();
  if (err == 0) err = StartThread();
  if (err == 0 && !HasThreadPort()) err = threadProtocolErr;
  return err;
}

SInt32 VLTStdMPRunLoopThread::StopThreadAsync() {
  const SInt32 err = VLTStdMPThread::StopThreadAsync();
  // Before the loop is looked for: if the thread has not stored it, it will see this.
  const UInt32 run = CurrentRun();
  const bool isFirst = stoppedRun.exchange(run) != run;
  if (CFRunLoopRef loop = CopyRunLoop()) {
    CFRunLoopStop(loop);
    if (isFirst) KeepStopping(loop);
    CFRelease(loop);
  }
  return err;
}

// A stop ends the innermost run only, which may be one within a callout. So the loop is stopped
// again and again until its outermost run has ended, and the timer with it. In between, code that
// runs the loop until something has happened gets its time.
void VLTStdMPRunLoopThread::KeepStopping(CFRunLoopRef loop) {
  constexpr CFTimeInterval kInterval = 0.01;
  const auto stop = [](CFRunLoopTimerRef, void*) { CFRunLoopStop(CFRunLoopGetCurrent()); };
  CFRunLoopTimerRef timer = CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + kInterval, kInterval, 0, 0, stop, nullptr);
  if (timer == nullptr) return;
  CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
  CFRelease(timer);
}

bool VLTStdMPRunLoopThread::IsStopped() const { return stoppedRun.load() == CurrentRun(); }

bool VLTStdMPRunLoopThread::IsEnding() const {
  return HasTask() && endingRun.load() == CurrentRun();
}

SInt32 VLTStdMPRunLoopThread::WaitWhileEnding() {
  SInt32 err = 0;
  while (err == 0 && IsEnding() && !IsOwnTask())
    err = WaitForRun(endingRun.load(), kDurationForever);
  return err;
}

SInt32 VLTStdMPRunLoopThread::GetMachThread(mach_port_t& port) {
  const SInt32 err = StartThreadIfNeeded();
  port = threadPort.load();
  return err;
}

SInt32 VLTStdMPRunLoopThread::GetPThread(pthread_t& thread) {
  const SInt32 err = StartThreadIfNeeded();
  thread = RememberedThread();
  return err;
}

SInt32 VLTStdMPRunLoopThread::GetCFRunLoop(CFRunLoopRef& loop) {
  const SInt32 err = StartThreadIfNeeded();
  loop = PeekRunLoop();
  return err;
}

// Sources.

// A run that is to stop would never serve the source, so the source is added to the next run.
SInt32 VLTStdMPRunLoopThread::AddSource(CFRunLoopSourceRef source, CFStringRef mode) {
  CFRunLoopRef loop = nullptr;
  while (loop == nullptr) {
    SInt32 err = 0;
    while (err == 0 && HasTask() && IsStopped() && !IsOwnTask()) {
      err = WaitForRun(stoppedRun.load(), kDurationForever);
    }
    if (err == 0) err = StartThreadIfNeeded();
    if (err != 0) return err;
    loop = CopyRunLoop();
    // It has ended meanwhile. If it was stopped, the next run gets the source.
    if (loop == nullptr && (IsOwnTask() || !IsStopped())) return threadProtocolErr;
  }
  CFRunLoopAddSource(loop, source, mode);
  const bool isServed = !CFRunLoopSourceIsValid(source) || IsServed(loop, source, mode);
  CFRelease(loop);
  return isServed ? SInt32{0} : SInt32{kIOReturnNoResources};
}

// A loop that lacks a file descriptor for a mode takes no source into it. A source that is not
// there may also have fired and removed itself, where the thread's own source shows that the mode
// is served.
bool VLTStdMPRunLoopThread::IsServed(CFRunLoopRef loop, CFRunLoopSourceRef source,
                                     CFStringRef mode) {
  if (CFRunLoopContainsSource(loop, source, mode)) return true;
  if (!CFEqual(mode, kCFRunLoopDefaultMode) || AcquireSyncMutex() != 0) return false;
  const bool hasOwnSource = syncSource != nullptr;
  ReleaseSyncMutex();
  return hasOwnSource;
}

SInt32 VLTStdMPRunLoopThread::RemoveSource(CFRunLoopSourceRef source, CFStringRef mode) {
  if (CFRunLoopRef loop = CopyRunLoop()) {
    CFRunLoopRemoveSource(loop, source, mode);
    CFRunLoopWakeUp(loop);
    CFRelease(loop);
  }
  return 0;
}

SInt32 VLTStdMPRunLoopThread::AddPrioritySource(CFRunLoopSourceRef source, CFStringRef mode,
                                                SInt32 quantum) {
  const SInt32 err = AddSource(source, mode);
  // Meant: where the policy applies, its result hides the other.
  return WantsQuantum(quantum) ? ApplyQuantum(quantum) : err;
}

SInt32 VLTStdMPRunLoopThread::SetMaxRRPolicy(SInt32 quantum) {
  if (!HasThreadPort()) {
    SInt32 err = WaitWhileEnding();
    if (err == 0) err = StartThread();
    if (err != 0) return err;
    if (!HasThreadPort()) return -1;
  }
  return WantsQuantum(quantum) ? ApplyQuantum(quantum) : 0;
}

bool VLTStdMPRunLoopThread::WantsQuantum(SInt32 quantum) const {
  const SInt32 set = rrQuantum.load();
  return (quantum != 0 && set == 0) || quantum < set;
}

SInt32 VLTStdMPRunLoopThread::ApplyQuantum(SInt32 quantum) {
  const mach_port_t port = threadPort.load();
  // Meant: the flavour of the other policy. Its record begins with the same two words.
  policy_rr_info_data_t info = {};
  mach_msg_type_number_t count = POLICY_RR_INFO_COUNT;
  const SInt32 err = thread_info(port, THREAD_SCHED_TIMESHARE_INFO, &info.max_priority, &count);
  if (err != 0) return err;
  // Stored first, and kept when the policy is refused.
  rrQuantum.store(quantum);
  policy_rr_base_data_t base = {info.max_priority, quantum};
  return thread_policy(port, POLICY_RR, &base.base_priority, POLICY_RR_BASE_COUNT, false);
}

// Synchronous calls, the caller's side.

SInt32 VLTStdMPRunLoopThread::CallSynchronous(SInt32 (*function)(void*, void*), void* a, void* b,
                                              SInt32) {
  if (function == nullptr) return paramErr;
  if (IsCurrentThread() || IsOwnTask()) return function(a, b);
  // The others wait here: a call's fields are its own until its result is in.
  const std::lock_guard<std::mutex> lock(callerMutex);
  SInt32 err = InitializeIfNeeded();
  if (err == 0) err = LockForCall();
  if (err != 0) return err;
  SInt32 result = kPending;
  err = PostCall(&result, function, a, b);
  return err != 0 ? err : AwaitCall(&result);
}

// Takes the mutex while the thread still accepts calls, or does not run.
SInt32 VLTStdMPRunLoopThread::LockForCall() {
  for (;;) {
    SInt32 err = AcquireSyncMutex();
    if (err != 0 || !IsEnding()) return err;
    ReleaseSyncMutex();
    err = WaitWhileEnding();
    if (err != 0) return err;
  }
}

// With the mutex, which it leaves released after a failure.
SInt32 VLTStdMPRunLoopThread::PostCall(SInt32* result, SInt32 (*function)(void*, void*), void* a,
                                       void* b) {
  callFunction = function;
  callResult = result;
  callArg1 = a;
  callArg2 = b;
  locks.AcquireLock(kVLTThreadStopLock);
  if (syncSource != nullptr) {
    CFRunLoopSourceSignal(syncSource);
    if (CFRunLoopRef loop = PeekRunLoop()) CFRunLoopWakeUp(loop);
    return 0;
  }
  // Without the mutex: the thread needs it to install its source, and finds the call then.
  ReleaseSyncMutex();
  const SInt32 err = StartThread();
  const SInt32 locked = AcquireSyncMutex();
  if (err == 0 && locked == 0) return 0;
  WithdrawCall(result);
  ReleaseSyncMutex();
  return FirstError(err, locked);
}

// With the mutex: the call must not find the caller's frame gone. If the thread runs it, it ends.
void VLTStdMPRunLoopThread::WithdrawCall(SInt32* result) {
  while (callRunning) pthread_cond_wait(&syncCondition, &syncMutex);
  if (callResult != result) return;
  callFunction = nullptr;
  callResult = nullptr;
  locks.ReleaseLock(kVLTThreadStopLock);
}

// With the mutex, which it releases.
SInt32 VLTStdMPRunLoopThread::AwaitCall(SInt32* result) {
  // Not lock 5: a stop request may set it again before this thread wakes.
  int error = 0;
  while (error == 0 && callResult == result) error = pthread_cond_wait(&syncCondition, &syncMutex);
  if (error != 0) WithdrawCall(result);
  const SInt32 value = error == 0 ? *result : 0;
  const SInt32 err = ReleaseSyncMutex();
  return FirstError(value, FirstError(StatusOfErrno(error), err));
}

SInt32 VLTStdMPRunLoopThread::AcquireSyncMutex() {
  return StatusOfErrno(pthread_mutex_lock(&syncMutex));
}

SInt32 VLTStdMPRunLoopThread::ReleaseSyncMutex() {
  return StatusOfErrno(pthread_mutex_unlock(&syncMutex));
}

// Synchronous calls, the thread's side.

void VLTStdMPRunLoopThread::CallbackSourcePerform(void* info) {
  if (info != nullptr) static_cast<VLTStdMPRunLoopThread*>(info)->PerformSyncCallback();
}

SInt32 VLTStdMPRunLoopThread::PerformSyncCallback() {
  if (!locks.IsLockAcquired(kVLTThreadStopLock)) return 0;
  SInt32 err = AcquireSyncMutex();
  if (err != 0) return err;
  if (callResult == nullptr || callRunning) {
    // A stop request, or a run of this loop within the call.
    if (callResult == nullptr) locks.ReleaseLock(kVLTThreadStopLock);
    return ReleaseSyncMutex();
  }
  callRunning = true;
  const auto function = callFunction;
  void* const a = callArg1;
  void* const b = callArg2;
  ReleaseSyncMutex();
  const SInt32 result = function(a, b);  // may end the task: see Abandon
  err = AcquireSyncMutex();
  if (err != 0) return err;
  FinishCall(result == kPending ? 0 : result);
  return ReleaseSyncMutex();
}

// With the mutex. The fields are cleared with the result: a stop must not run the call again.
void VLTStdMPRunLoopThread::FinishCall(SInt32 result) {
  if (callResult != nullptr) *callResult = result;
  callFunction = nullptr;
  callResult = nullptr;
  callRunning = false;
  locks.ReleaseLock(kVLTThreadStopLock);
  pthread_cond_broadcast(&syncCondition);
}

// The task.

SInt32 VLTStdMPRunLoopThread::DoThreadTask() {
  // A task that ends in the middle (MPExit in a called function) must remove its source and its
  // identity, too: they would be taken for those of the next run.
  struct Leaving {
    VLTStdMPRunLoopThread* thread;
    ~Leaving() {
      if (thread != nullptr) thread->Abandon();
    }
  } leaving{this};
  SInt32 err = BeforeRunLoop();
  if (err == 0) err = RunRunLoop();
  err = AfterRunLoop(err);
  leaving.thread = nullptr;
  return err;
}

SInt32 VLTStdMPRunLoopThread::BeforeRunLoop() {
  CFRunLoopRef loop = PeekRunLoop();
  if (loop == nullptr || syncSource != nullptr) return 0;
  CFRunLoopSourceContext context = {};
  context.info = this;
  context.perform = CallbackSourcePerform;
  CFRunLoopSourceRef source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
  if (source == nullptr) return memFullErr;
  CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
  // Without it a loop that lacks a file descriptor would serve nothing.
  if (!CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode)) {
    CFRelease(source);
    return kIOReturnNoResources;
  }
  const SInt32 err = AcquireSyncMutex();
  syncSource = source;
  if (locks.IsLockAcquired(kVLTThreadStopLock)) CFRunLoopSourceSignal(source);
  if (err == 0) ReleaseSyncMutex();
  // Asked to stop before there was a loop to be stopped.
  if (IsStopped()) CFRunLoopStop(loop);
  return err;
}

SInt32 VLTStdMPRunLoopThread::RunRunLoop() {
  CFRunLoopRun();
  return 0;
}

SInt32 VLTStdMPRunLoopThread::AfterRunLoop(SInt32 result) {
  Leave(MarkEnding());
  return result;
}

// Ends the call and marks the end of the run under one lock, so that the next call waits for the
// next run.
void VLTStdMPRunLoopThread::Abandon() {
  AcquireSyncMutex();
  if (callResult != nullptr) FinishCall(kMPTaskAbortedErr);
  endingRun.store(CurrentRun());
  CFRunLoopSourceRef source = std::exchange(syncSource, nullptr);
  ReleaseSyncMutex();
  Leave(source);
}

// Gives the source and the identity of the run up.
void VLTStdMPRunLoopThread::Leave(CFRunLoopSourceRef source) {
  if (source != nullptr) {
    CFRunLoopSourceInvalidate(source);
    CFRelease(source);
  }
  threadPort.store(MACH_PORT_NULL);
  ForgetPThread();
}

// Serves what is pending, then marks that no call is accepted any more and takes the source out of
// its field. All under one lock, so no call comes between. The caller releases the source.
CFRunLoopSourceRef VLTStdMPRunLoopThread::MarkEnding() {
  for (;;) {
    while (locks.IsLockAcquired(kVLTThreadStopLock)) PerformSyncCallback();
    AcquireSyncMutex();
    if (callResult == nullptr) break;
    ReleaseSyncMutex();
  }
  endingRun.store(CurrentRun());
  CFRunLoopSourceRef source = std::exchange(syncSource, nullptr);
  ReleaseSyncMutex();
  return source;
}

// A call that was posted to a thread which then gave up at its start.
SInt32 VLTStdMPRunLoopThread::ThreadTerminating(SInt32 result) {
  AcquireSyncMutex();
  if (callResult != nullptr && !callRunning) FinishCall(result);
  endingRun.store(CurrentRun());
  ReleaseSyncMutex();
  return VLTStdMPThread::ThreadTerminating(result);
}
