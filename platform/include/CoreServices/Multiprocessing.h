#pragma once

#include <CoreServices/DriverServices.h>
#include <CoreServices/MacTypes.h>

// Preemptive tasks, and the objects that they wait on. An id is a number, not an address. An id
// that was deleted gives kMPInvalidIDErr and is not used again soon. A wait takes a Duration: 0
// does not wait, kDurationForever has no end. Deleting an object ends the waits on it with
// kMPDeletedErr. Any thread may call these functions, but not a child that was forked from a
// process with several threads.

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
// the same variable. After the task has ended and its thread's objects are destroyed, the message
// (terminationParameter1, terminationParameter2, result) is posted to `notifyQueue`, unless that is
// kInvalidID. This call reserves room for the message in addition to the queue's reserve, so it is
// never lost as long as the queue exists.
//
// stackSize  in bytes; 0 for that of an ordinary thread. Less than 256 KiB counts as 256 KiB.
// options    no effect, but kMPCreateTaskSuspendedMask and undefined bits are refused
// Result     0, kMPInvalidIDErr (the queue), kMPInsufficientResourcesErr, paramErr (null entry
//            point). After a failure `*task` is kInvalidID and no message is posted.
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
OSStatus MPDeleteQueue(MPQueueID queue);  // drops its messages

// Posts a message; never waits. Returns kMPInsufficientResourcesErr if the reserve is used up or,
// in a queue without one, if there is no memory or a million messages wait.
OSStatus MPNotifyQueue(MPQueueID queue, void* parameter1, void* parameter2, void* parameter3);

// Takes the oldest message. Outputs may be null, and are written on success only. kMPTimeoutErr
// when the time has passed.
OSStatus MPWaitOnQueue(MPQueueID queue, void** parameter1, void** parameter2, void** parameter3,
                       Duration timeout);

// With `count` > 0 the queue holds so many messages and no more; what it holds already stays. 0:
// it grows as it must, again.
OSStatus MPSetQueueReserve(MPQueueID queue, ItemCount count);

// Event groups: a word of flags, all of which one waiter takes.

OSStatus MPCreateEvent(MPEventID* event);  // no flag is set
OSStatus MPDeleteEvent(MPEventID event);
OSStatus MPSetEvent(MPEventID event, MPEventFlags flags);  // adds them; wakes one waiter
// Waits until a flag is set, stores the word in `*flags`, which may be null, and clears it.
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
