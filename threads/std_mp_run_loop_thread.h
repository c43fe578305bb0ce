#pragma once

#include "threads/std_mp_thread.h"

// VLTStdMPRunLoopThread is a worker that runs its thread's run loop. The loop serves sources, and
// any other thread can run a function on the thread and wait for the result. The first operation
// that needs the thread starts it.
//
// not started -> running (identity stored, sync source installed) -> stopping (the loop has ended;
// a pending call is still served, then the sync source is removed, then the identity is cleared)
// -> ended. The next operation starts the thread again.
//
// Any thread may call the operations below, call functions on the thread and stop it. The owner
// finalises and destroys the object when no other thread uses it any more.
//
// A stop ends all runs of the loop, also those within a callout. Code in a callout that runs the
// loop again and again should end when such a run returns kCFRunLoopRunStopped: the thread cannot
// end before.
//
// Meant: lock 5 marks a pending call as well as a stop request, and lock 4 that the call's mutex is
// ready as well as the owned event group, because subclasses read these locks. A stop request thus
// looks like a call without a function. Finalize releases lock 4 first and therefore leaves the
// event group undeleted; that costs memory.
class VLTStdMPRunLoopThread : public VLTStdMPThread {
 public:
  VLTStdMPRunLoopThread();
  ~VLTStdMPRunLoopThread() override;

  SInt32 Initialize() override;
  SInt32 Finalize(SInt32 error) override;
  SInt32 StopThreadAsync() override;  // also ends a loop that is about to run
  SInt32 DoThreadTask() override;
  SInt32 ThreadTerminating(SInt32 result) override;  // ends a call that was never served

  // Runs `function(a, b)` on the thread and returns its result, 1 as 0. One call runs at a time;
  // other callers wait. On the thread itself the function is called directly, and a result of 1 is
  // returned as 1. Other results: paramErr for a null function; the error of starting the thread;
  // if the thread gave up during its start and never ran the function, the status with which it
  // gave up; kMPTaskAbortedErr if the function ended the task (MPExit). `timeout` is not used. The
  // function runs with no lock held.
  //
  // An override of NotifyThreadCreated must not call this: if the start came from CallSynchronous,
  // the caller processes the start message and would wait for itself for ever.
  virtual SInt32 CallSynchronous(SInt32 (*function)(void*, void*), void* a, void* b,
                                 SInt32 timeout);

  // Starts the thread if needed and adds `source` to its loop. If the thread was asked to stop,
  // waits for its end first and starts it again, except on the thread itself. Returns 0; the error
  // of starting the thread; kIOReturnNoResources if the loop lacks a file descriptor for `mode`.
  virtual SInt32 AddSource(CFRunLoopSourceRef source, CFStringRef mode);
  // Calls AddSource, then requests round-robin scheduling with the greatest priority. Meant:
  // returns the result of SetMaxRRPolicy, and that of AddSource only if the quantum requests
  // nothing new, because callers look for the policy's errors here.
  virtual SInt32 AddPrioritySource(CFRunLoopSourceRef source, CFStringRef mode, SInt32 quantum);
  // Starts the thread if needed and applies `quantum` if it is not 0 and none is set yet, or if it
  // is smaller (signed) than the one that is set. Returns 0, also if nothing changed; the error of
  // starting the thread; -1 if the thread stored no identity; the error of thread_policy.
  virtual SInt32 SetMaxRRPolicy(SInt32 quantum);
  // Does not start the thread and does not wait for a callout that is running. Returns 0.
  virtual SInt32 RemoveSource(CFRunLoopSourceRef source, CFStringRef mode);

  // Runs on the thread: serves the pending call, if there is one.
  virtual SInt32 PerformSyncCallback();
  // Run on the thread, around the loop. AfterRunLoop returns `result`.
  virtual SInt32 BeforeRunLoop();
  virtual SInt32 RunRunLoop();
  virtual SInt32 AfterRunLoop(SInt32 result);

  // Start the thread if needed. Return 0, the error of starting it, or threadProtocolErr if the
  // thread stored no identity. Write the output in each case. The loop is borrowed: valid while the
  // thread runs.
  SInt32 GetMachThread(mach_port_t& port);
  SInt32 GetPThread(pthread_t& thread);
  SInt32 GetCFRunLoop(CFRunLoopRef& loop);

 protected:
  static void CallbackSourcePerform(void* info);

  SInt32 StartThreadIfNeeded();
  SInt32 AcquireSyncMutex();

  // Owned. Written by the thread, under the mutex.
  CFRunLoopSourceRef syncSource = nullptr;
  // Valid from construction to destruction: the base class stops the thread after Finalize has
  // released lock 4.
  pthread_mutex_t syncMutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t syncCondition = PTHREAD_COND_INITIALIZER;
  // The pending call, guarded by the mutex. Between calls `callResult` is null.
  SInt32 (*callFunction)(void*, void*) = nullptr;
  SInt32* callResult = nullptr;
  void* callArg1 = nullptr;
  void* callArg2 = nullptr;
  std::atomic<SInt32> rrQuantum{0};

 private:
  SInt32 ReleaseSyncMutex();
  SInt32 LockForCall();
  SInt32 PostCall(SInt32* result, SInt32 (*function)(void*, void*), void* a, void* b);
  SInt32 AwaitCall(SInt32* result);
  void WithdrawCall(SInt32* result);
  void FinishCall(SInt32 result);
  CFRunLoopSourceRef MarkEnding();
  static void KeepStopping(CFRunLoopRef loop);
  void Abandon();
  void Leave(CFRunLoopSourceRef source);
  bool IsStopped() const;
  bool IsServed(CFRunLoopRef loop, CFRunLoopSourceRef source, CFStringRef mode);
  bool IsEnding() const;
  SInt32 WaitWhileEnding();
  bool WantsQuantum(SInt32 quantum) const;
  SInt32 ApplyQuantum(SInt32 quantum);

  std::mutex callerMutex;             // held by the thread that has a call; before syncMutex
  bool callRunning = false;           // guarded by syncMutex: the function is running
  std::atomic<UInt32> endingRun{0};   // the run that accepts no more calls
  std::atomic<UInt32> stoppedRun{0};  // the latest run that was asked to stop
};
