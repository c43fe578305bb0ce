#include "threads/abstract_thread.h"

#include <utility>

// VLTAbstractThread.

SInt32 VLTAbstractThread::InitializeIfNeeded() {
  return locks.AcquireLock(kVLTThreadInitialisedLock) != 0 ? Initialize() : 0;
}

SInt32 VLTAbstractThread::FinalizeIfNeeded(SInt32 error) {
  return locks.ReleaseLock(kVLTThreadInitialisedLock) != 0 ? Finalize(error) : error;
}

SInt32 VLTAbstractThread::NotifyThreadCreated(SInt32 result) {
  // The status is stored first: a thread that sees the mark also sees the status.
  status.store(result != 0 ? result : 1);
  locks.AcquireLock(kVLTThreadCreatedLock);
  return 0;
}

SInt32 VLTAbstractThread::NotifyThreadTerminated(SInt32 result) {
  status.store(result);
  locks.AcquireLock(kVLTThreadTerminatedLock);
  return 0;
}

// VLTMachThread.

SInt32 VLTMachThread::NotifyThreadTerminated(SInt32 result) {
  threadPort.store(MACH_PORT_NULL);
  return VLTAbstractThread::NotifyThreadTerminated(result);
}

SInt32 VLTMachThread::RememberSelf() {
  threadPort.store(mach_thread_self());
  return 0;
}

bool VLTMachThread::IsCurrentThread() const {
  const mach_port_t port = threadPort.load();
  return port != MACH_PORT_NULL && port == mach_thread_self();
}

// VLTPThread.

VLTPThread::~VLTPThread() { ForgetPThread(); }

SInt32 VLTPThread::NotifyThreadTerminated(SInt32 result) {
  ForgetPThread();
  return VLTMachThread::NotifyThreadTerminated(result);
}

SInt32 VLTPThread::RememberSelf() {
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  if (loop != nullptr) CFRetain(loop);
  {
    const std::lock_guard<std::mutex> lock(identityMutex);
    pthread = pthread_self();
    std::swap(runLoop, loop);
  }
  if (loop != nullptr) CFRelease(loop);
  return VLTMachThread::RememberSelf();
}

void VLTPThread::ForgetPThread() {
  CFRunLoopRef loop = nullptr;
  {
    const std::lock_guard<std::mutex> lock(identityMutex);
    pthread = pthread_t();
    std::swap(runLoop, loop);
  }
  if (loop != nullptr) CFRelease(loop);
}

pthread_t VLTPThread::RememberedThread() const {
  const std::lock_guard<std::mutex> lock(identityMutex);
  return pthread;
}

CFRunLoopRef VLTPThread::CopyRunLoop() const {
  const std::lock_guard<std::mutex> lock(identityMutex);
  if (runLoop != nullptr) CFRetain(runLoop);
  return runLoop;
}

CFRunLoopRef VLTPThread::PeekRunLoop() const {
  const std::lock_guard<std::mutex> lock(identityMutex);
  return runLoop;
}

// VLTMPThread.

SInt32 VLTMPThread::NotifyThreadTerminated(SInt32 result) {
  ClearTask();
  return VLTPThread::NotifyThreadTerminated(result);
}

MPTaskID VLTMPThread::LoadTask() const {
  return std::atomic_ref<MPTaskID>(taskID).load(std::memory_order_acquire);
}

void VLTMPThread::ClearTask() {
  std::atomic_ref<MPTaskID>(taskID).store(kInvalidID, std::memory_order_release);
}

bool VLTMPThread::IsOwnTask() const {
  const MPTaskID task = LoadTask();
  return task != kInvalidID && task == MPCurrentTaskID();
}
