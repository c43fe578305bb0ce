#pragma once

#include "threads/std_mp_thread.h"

// VLTStdMPRunLoopThread is a worker that runs its thread's run loop: sources are served there, and
// any other thread can have a function run on it and wait for the result. The thread is started by
// the first operation that needs it.
//
// not started -> running (identity stored, sync source installed) -> stopping (the loop has ended;
// a pending call is still served, then the source goes, then the identity) -> ended, from which the
// next operation starts it anew.
//
// Any thread may call the operations below, call functions on the thread and ask it to stop. The
// owner finalises and destroys, when nobody else uses the object any more.
//
// Lock 5 marks a pending call as well as a stop request, and lock 4 that the call's lock is ready
// as well as the owned event group. Both are meant. A stop request thus looks like a call without a
// function, and Finalize leaves the event group undeleted: it releases lock 4 first.
class VLTStdMPRunLoopThread : public VLTStdMPThread {
 public:
  VLTStdMPRunLoopThread();
  ~VLTStdMPRunLoopThread() override;

  SInt32 Initialize() override;
  SInt32 Finalize(SInt32 error) override;
  SInt32 StopThreadAsync() override;  // also ends a loop that is about to run
  SInt32 DoThreadTask() override;
  SInt32 ThreadTerminating(SInt32 result) override;  // answers a call that nothing else would

  // Runs `function(a, b)` on the thread and returns its result, 1 as 0. One call at a time; the
  // others wait for their turn. Called on the thread itself it runs the function directly, and 1 is
  // 1. Other results: paramErr without a function, what starting the thread says, and what the
  // function never got to say: the status of a thread that gave up at its start. `timeout` is not
  // used. The function runs with no lock held.
  virtual SInt32 CallSynchronous(SInt32 (*function)(void*, void*), void* a, void* b,
                                 SInt32 timeout);

  // Starts the thread if needed and adds `source` to its loop. 0 or what starting says.
  virtual SInt32 AddSource(CFRunLoopSourceRef source, CFStringRef mode);
  // And asks for round-robin scheduling with the greatest priority. The result is SetMaxRRPolicy's,
  // and AddSource's only where the quantum asks for nothing new.
  virtual SInt32 AddPrioritySource(CFRunLoopSourceRef source, CFStringRef mode, SInt32 quantum);
  // The smallest quantum wins: 0 without effect unless it is the first that is not 0, or smaller
  // (signed) than the one set. Result: 0, what starting says, -1, thread_policy's codes.
  virtual SInt32 SetMaxRRPolicy(SInt32 quantum);
  // Does not start the thread. A callout that is running is not waited for. Returns 0.
  virtual SInt32 RemoveSource(CFRunLoopSourceRef source, CFStringRef mode);

  // On the thread: serves the pending call, if there is one.
  virtual SInt32 PerformSyncCallback();
  // On the thread, around the loop. AfterRunLoop returns `result`.
  virtual SInt32 BeforeRunLoop();
  virtual SInt32 RunRunLoop();
  virtual SInt32 AfterRunLoop(SInt32 result);

  // Start the thread if needed; 0, what starting says, or threadProtocolErr when the thread left no
  // identity. The output is written in any case. The loop is borrowed: valid while the thread runs.
  SInt32 GetMachThread(mach_port_t& port);
  SInt32 GetPThread(pthread_t& thread);
  SInt32 GetCFRunLoop(CFRunLoopRef& loop);

 protected:
  static void CallbackSourcePerform(void* info);

  SInt32 StartThreadIfNeeded();
  SInt32 AcquireSyncMutex();

  CFRunLoopSourceRef syncSource = nullptr;  // owned; the thread's, read under the mutex
  // Usable from construction to destruction: a stop comes after Finalize has given them up.
  pthread_mutex_t syncMutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t syncCondition = PTHREAD_COND_INITIALIZER;
  // The pending call, guarded by the mutex. Empty (no result to write) between calls.
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
  void AnswerUnreturned();
  void Abandon();
  void Leave(CFRunLoopSourceRef source);
  bool IsStopped() const;
  bool IsServed(CFRunLoopRef loop, CFRunLoopSourceRef source, CFStringRef mode);
  bool IsEnding() const;
  SInt32 WaitWhileEnding();
  bool WantsQuantum(SInt32 quantum) const;
  SInt32 ApplyQuantum(SInt32 quantum);

  std::mutex callerMutex;             // whoever has a call; before syncMutex
  bool callRunning = false;           // guarded by syncMutex: the thread is in the function
  std::atomic<UInt32> endingRun{0};   // the run that takes no more calls
  std::atomic<UInt32> stoppedRun{0};  // the latest run that was asked to stop
};
