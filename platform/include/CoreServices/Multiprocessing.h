#pragma once

#include <CoreServices/DriverServices.h>
#include <CoreServices/MacTypes.h>

// Preemptive tasks and what they wait on. An id is a number, not an address: an id that was deleted
// is answered with kMPInvalidIDErr, whoever still holds it, and is not given out again soon. A wait
// takes a Duration: 0 asks without waiting, kDurationForever has no end. Whoever waits when the
// thing is deleted gets kMPDeletedErr. Any thread may call anything; nothing here is for a child
// that was forked from a process with several threads.

using MPTaskID = struct OpaqueMPTaskID*;
using MPQueueID = struct OpaqueMPQueueID*;
using MPEventID = struct OpaqueMPEventID*;
using MPSemaphoreID = struct OpaqueMPSemaphoreID*;
using MPCriticalRegionID = struct OpaqueMPCriticalRegionID*;

using MPEventFlags = UInt32;
using MPTaskOptions = OptionBits;
using MPSemaphoreCount = ItemCount;
using TaskProc = OSStatus (*)(void* parameter);

#define kInvalidID nullptr

enum : MPTaskOptions {
  kMPCreateTaskSuspendedMask = 1u << 0,  // not supported
  kMPCreateTaskTakesAllExceptionsMask = 1u << 1,
  kMPCreateTaskNotDebuggableMask = 1u << 2,
};

#pragma GCC visibility push(default)
extern "C" {

// Tasks.

// Starts a task. `*task` is written before the task runs and not afterwards, so the task may clear
// the same variable. When the task has ended, and its thread's own objects are gone, one message
// (terminationParameter1, terminationParameter2, result) goes to `notifyQueue` unless that is
// kInvalidID; room for it is set aside here, whatever the queue's reserve, so it cannot get lost
// while the queue lives.
// stackSize  bytes; 0 for an ordinary thread's stack, less than 256 KiB is raised to that
// options    of no effect, but kMPCreateTaskSuspendedMask and undefined bits are refused
// Result     0, kMPInvalidIDErr (the queue), kMPInsufficientResourcesErr, paramErr (no entry). On
//            failure `*task` is kInvalidID and no message will come.
OSStatus MPCreateTask(TaskProc entryPoint, void* parameter, ByteCount stackSize,
                      MPQueueID notifyQueue, void* terminationParameter1,
                      void* terminationParameter2, MPTaskOptions options, MPTaskID* task);

// Ends the calling task; its C++ objects are destroyed. On other threads it ends the thread.
[[noreturn]] void MPExit(OSStatus status);

MPTaskID MPCurrentTaskID(void);             // kInvalidID on threads that MPCreateTask did not start
Boolean MPTaskIsPreemptive(MPTaskID task);  // kInvalidID is the caller; false for an ended task
void MPYield(void);
ItemCount MPProcessors(void);

// Queues of three pointers, first in, first out; each message goes to one waiter.

OSStatus MPCreateQueue(MPQueueID* queue);
OSStatus MPDeleteQueue(MPQueueID queue);  // what is in it is dropped

// Never waits. kMPInsufficientResourcesErr when the reserve is used up, or without one when there
// is no memory or a million messages wait.
OSStatus MPNotifyQueue(MPQueueID queue, void* parameter1, void* parameter2, void* parameter3);

// Takes the oldest message. Outputs may be null, and are written on success only. kMPTimeoutErr
// when the time has passed.
OSStatus MPWaitOnQueue(MPQueueID queue, void** parameter1, void** parameter2, void** parameter3,
                       Duration timeout);

// With `count` > 0 the queue holds so many messages and no more; what it holds already stays. 0:
// it grows as it must, again.
OSStatus MPSetQueueReserve(MPQueueID queue, ItemCount count);

// Event groups: a word of flags that one waiter takes whole.

OSStatus MPCreateEvent(MPEventID* event);  // no flag is set
OSStatus MPDeleteEvent(MPEventID event);
OSStatus MPSetEvent(MPEventID event, MPEventFlags flags);  // adds them; wakes one waiter
// Waits until any flag is set, takes the word and leaves 0. `flags` may be null.
OSStatus MPWaitForEvent(MPEventID event, MPEventFlags* flags, Duration timeout);

// Counting semaphores. A signal beyond the maximum is kMPInsufficientResourcesErr.

OSStatus MPCreateSemaphore(MPSemaphoreCount maximum, MPSemaphoreCount initial,
                           MPSemaphoreID* semaphore);
OSStatus MPDeleteSemaphore(MPSemaphoreID semaphore);
OSStatus MPSignalSemaphore(MPSemaphoreID semaphore);
OSStatus MPWaitOnSemaphore(MPSemaphoreID semaphore, Duration timeout);

// Critical regions: the thread that is inside may enter again and leaves as often. Leaving a region
// that one is not in is kMPInsufficientResourcesErr.

OSStatus MPCreateCriticalRegion(MPCriticalRegionID* region);
OSStatus MPDeleteCriticalRegion(MPCriticalRegionID region);
OSStatus MPEnterCriticalRegion(MPCriticalRegionID region, Duration timeout);
OSStatus MPExitCriticalRegion(MPCriticalRegionID region);

// Blocks the caller until UpTime reaches `*time`. paramErr for null.
OSStatus MPDelayUntil(AbsoluteTime* time);

}  // extern "C"
#pragma GCC visibility pop
