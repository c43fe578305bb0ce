#pragma once

#include <pthread.h>

#include <atomic>
#include <mutex>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "threads/atomic_lock_set.h"

// What every thread object is built on: marks in one word of bit locks, and wrappers that remember
// a thread by its three names (the kernel's port, the POSIX handle with the run loop, the task).
// The owner makes, starts, waits for and destroys the object; the thread it stands for writes its
// own identity. All of it may be read from any thread.
//
// Lock numbers, shared by all classes here:
enum : SInt32 {
  kVLTThreadInitialisedLock = 0,  // Initialize has run
  kVLTThreadCreatedLock = 1,      // the thread's start was reported
  kVLTThreadTerminatedLock = 2,   // its end was reported
  kVLTThreadQueueLock = 3,        // the notification queue is ours to delete
  kVLTThreadEventLock = 4,        // the event group is ours to delete
  kVLTThreadStopLock = 5,         // asked to stop
};

class VLTAbstractThread {
 public:
  VLTAbstractThread() = default;
  VLTAbstractThread(const VLTAbstractThread&) = delete;
  VLTAbstractThread& operator=(const VLTAbstractThread&) = delete;
  virtual ~VLTAbstractThread() = default;

  virtual SInt32 Initialize() { return 0; }
  virtual SInt32 Finalize(SInt32 error) { return error; }  // `error`, or what it met itself
  // `result` is 0 or why the thread gave up at its start. The status never is 0 afterwards: 1
  // stands for a good start. Returns 0.
  virtual SInt32 NotifyThreadCreated(SInt32 result);
  // The thread has ended with `result`. Returns 0.
  virtual SInt32 NotifyThreadTerminated(SInt32 result) = 0;

  // Initialize or Finalize, once for each pair: of several callers one does it. The others get 0,
  // respectively `error`, at once.
  SInt32 InitializeIfNeeded();
  SInt32 FinalizeIfNeeded(SInt32 error);

  bool IsThreadCreated() const { return locks.IsLockAcquired(kVLTThreadCreatedLock); }
  bool IsThreadTerminated() const { return locks.IsLockAcquired(kVLTThreadTerminatedLock); }

 protected:
  AtomicLockSet locks;
  std::atomic<SInt32> status{0};
};

// A thread by its kernel port.
class VLTMachThread : public VLTAbstractThread {
 public:
  explicit VLTMachThread(mach_port_t port) : threadPort(port) {}

  SInt32 NotifyThreadTerminated(SInt32 result) override;  // forgets the port
  virtual SInt32 RememberSelf();                          // the caller is the thread; returns 0

  bool IsCurrentThread() const;  // false when no port is stored

 protected:
  bool HasThreadPort() const { return threadPort.load() != MACH_PORT_NULL; }

  std::atomic<mach_port_t> threadPort;
};

// A thread by its POSIX handle, with its run loop. The loop is retained while it is remembered.
class VLTPThread : public VLTMachThread {
 public:
  VLTPThread(mach_port_t port, pthread_t thread) : VLTMachThread(port), pthread(thread) {}
  ~VLTPThread() override;

  SInt32 NotifyThreadTerminated(SInt32 result) override;
  SInt32 RememberSelf() override;

 protected:
  void ForgetPThread();  // handle and run loop
  pthread_t RememberedThread() const;
  CFRunLoopRef CopyRunLoop() const;  // the caller releases it; null when none is remembered
  CFRunLoopRef PeekRunLoop() const;  // borrowed: valid while the thread runs

 private:
  mutable std::mutex identityMutex;  // guards the two below
  pthread_t pthread;
  CFRunLoopRef runLoop = nullptr;
};

// A thread by its task. The id is stored by the platform when the task is created and cleared by
// the task at its end, hence read atomically.
class VLTMPThread : public VLTPThread {
 public:
  VLTMPThread(mach_port_t port, pthread_t thread, MPTaskID task)
      : VLTPThread(port, thread), taskID(task) {}

  SInt32 NotifyThreadTerminated(SInt32 result) override;

 protected:
  bool HasTask() const { return LoadTask() != kInvalidID; }
  bool IsOwnTask() const;  // the caller is the task
  void ClearTask();

  mutable MPTaskID taskID;

 private:
  MPTaskID LoadTask() const;
};

// Finalises a thread object when the process's static objects are destroyed: a static instance,
// made right after the static thread object.
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
