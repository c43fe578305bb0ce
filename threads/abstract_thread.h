#pragma once

#include <pthread.h>

#include <atomic>
#include <mutex>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "threads/atomic_lock_set.h"

// The bases of every thread object: marks in one word of bit locks, and wrappers that store the
// three identities of a thread (the kernel's port, the POSIX handle with the run loop, the task).
//
// The owner constructs, starts, waits for and destroys the object. The thread that the object
// stands for stores its own identity. Any thread may read all of it.
//
// The lock numbers, shared by all classes here:
enum : SInt32 {
  kVLTThreadInitialisedLock = 0,  // Initialize has run
  kVLTThreadCreatedLock = 1,      // the thread's start was reported
  kVLTThreadTerminatedLock = 2,   // its end was reported
  kVLTThreadQueueLock = 3,        // this object has to delete the notification queue
  kVLTThreadEventLock = 4,        // this object has to delete the event group
  kVLTThreadStopLock = 5,         // the thread was asked to stop
};

class VLTAbstractThread {
 public:
  VLTAbstractThread() = default;
  VLTAbstractThread(const VLTAbstractThread&) = delete;
  VLTAbstractThread& operator=(const VLTAbstractThread&) = delete;
  virtual ~VLTAbstractThread() = default;

  virtual SInt32 Initialize() { return 0; }
  // Returns `error`, or the first failure of its own if `error` is 0.
  virtual SInt32 Finalize(SInt32 error) { return error; }
  // Records the start. `result` is 0, or the reason why the thread gave up at its start. Stores it
  // as the status, 0 as 1, so that a created thread never has the status 0. Returns 0.
  virtual SInt32 NotifyThreadCreated(SInt32 result);
  // Records that the thread has ended with `result`, which becomes the status. Returns 0.
  virtual SInt32 NotifyThreadTerminated(SInt32 result) = 0;

  // Call Initialize or Finalize once for each pair. If several threads call one of them, one does
  // the work; the others return at once, with 0 or `error`.
  SInt32 InitializeIfNeeded();
  SInt32 FinalizeIfNeeded(SInt32 error);

  bool IsThreadCreated() const { return locks.IsLockAcquired(kVLTThreadCreatedLock); }
  bool IsThreadTerminated() const { return locks.IsLockAcquired(kVLTThreadTerminatedLock); }

 protected:
  AtomicLockSet locks;
  std::atomic<SInt32> status{0};
};

// VLTMachThread identifies a thread by its kernel port.
class VLTMachThread : public VLTAbstractThread {
 public:
  explicit VLTMachThread(mach_port_t port) : threadPort(port) {}

  SInt32 NotifyThreadTerminated(SInt32 result) override;  // also clears the port
  virtual SInt32 RememberSelf();  // stores the calling thread's identity; returns 0

  bool IsCurrentThread() const;  // false if no port is stored

 protected:
  bool HasThreadPort() const { return threadPort.load() != MACH_PORT_NULL; }

  std::atomic<mach_port_t> threadPort;
};

// VLTPThread identifies a thread by its POSIX handle, with its run loop. It retains the loop for as
// long as it stores it.
class VLTPThread : public VLTMachThread {
 public:
  VLTPThread(mach_port_t port, pthread_t thread) : VLTMachThread(port), pthread(thread) {}
  ~VLTPThread() override;

  SInt32 NotifyThreadTerminated(SInt32 result) override;
  SInt32 RememberSelf() override;

 protected:
  void ForgetPThread();  // clears handle and run loop
  pthread_t RememberedThread() const;
  CFRunLoopRef CopyRunLoop() const;  // the caller releases it; null if none is stored
  CFRunLoopRef PeekRunLoop() const;  // borrowed: valid while the thread runs

 private:
  mutable std::mutex identityMutex;  // guards the two below
  pthread_t pthread;
  CFRunLoopRef runLoop = nullptr;
};

// VLTMPThread identifies a thread by its task. The platform stores the id when it creates the task,
// and the task clears it at its end; it is therefore read atomically.
class VLTMPThread : public VLTPThread {
 public:
  VLTMPThread(mach_port_t port, pthread_t thread, MPTaskID task)
      : VLTPThread(port, thread), taskID(task) {}

  SInt32 NotifyThreadTerminated(SInt32 result) override;

 protected:
  bool HasTask() const { return LoadTask() != kInvalidID; }
  bool IsOwnTask() const;  // whether the caller is the task
  void ClearTask();

  mutable MPTaskID taskID;

 private:
  MPTaskID LoadTask() const;
};

// VLTStaticThreadFinalizer finalises a thread object when the process destroys its static objects.
// Define it as a static object right after the static thread object.
class VLTStaticThreadFinalizer {
 public:
  explicit VLTStaticThreadFinalizer(VLTAbstractThread* thread) : thread(thread) {}
  VLTStaticThreadFinalizer(const VLTStaticThreadFinalizer&) = delete;
  VLTStaticThreadFinalizer& operator=(const VLTStaticThreadFinalizer&) = delete;
  ~VLTStaticThreadFinalizer() {
    if (thread != nullptr) thread->FinalizeIfNeeded(0);
  }

 private:
  VLTAbstractThread* thread;  // borrowed
};
