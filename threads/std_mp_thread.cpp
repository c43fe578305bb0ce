#include "threads/std_mp_thread.h"

#include "util/first_error.h"

namespace {

void* PointerOf(OSType code) { return reinterpret_cast<void*>(uintptr_t{code}); }
void* PointerOfStatus(SInt32 status) { return reinterpret_cast<void*>(intptr_t{status}); }

OSType CodeOf(void* pointer) { return static_cast<OSType>(reinterpret_cast<uintptr_t>(pointer)); }
SInt32 StatusOf(void* pointer) { return static_cast<SInt32>(reinterpret_cast<intptr_t>(pointer)); }

constexpr UInt32 kCreatedFlag = 1;
constexpr UInt32 kCreatedAndTerminatedMask =
    1u << kVLTThreadCreatedLock | 1u << kVLTThreadTerminatedLock;

}  // namespace

VLTStdMPThread::VLTStdMPThread(SInt32 (*proc)(void*), void* argument, UInt32 stackSize,
                               UInt32 options)
    : VLTMPThread(MACH_PORT_NULL, pthread_t(), kInvalidID),
      taskOptions(options),
      stackSize(stackSize),
      clientProc(proc),
      clientArgument(argument) {}

VLTStdMPThread::~VLTStdMPThread() { _Finalize(); }

// Starting.

// Waiting happens between the steps, never with the mutex: a handler on another thread, whose end
// is waited for, may start this thread itself. So after each wait everything is looked at again.
SInt32 VLTStdMPThread::StartThread() {
  // The task itself calls this while its starter waits for its report.
  if (IsOwnTask()) return 0;
  bool isStarted = false;
  bool isThere = false;
  SInt32 err = Prepare();
  while (err == 0 && !isStarted && !isThere) {
    isThere = HasTask();
    if (isThere) break;
    err = TakeOutstandingEnd();
    if (err == 0) err = FlushNotifications();
    if (err == 0) err = CreateTaskUnlessThere(&isStarted, &isThere);
  }
  // A handler that finds the task running may be handling the very message that reports its start.
  if (isThere && turn.IsCallers()) return 0;
  return WaitForThreadCreation(err);
}

SInt32 VLTStdMPThread::MakeQueue() {
  if (notifyQueue.load() != kInvalidID) return 0;
  MPQueueID queue = kInvalidID;
  const SInt32 err = MPCreateQueue(&queue);
  if (err != 0) return err;
  notifyQueue.store(queue);
  locks.AcquireLock(kVLTThreadQueueLock);
  return 0;
}

SInt32 VLTStdMPThread::MakeEventGroup() {
  if (eventGroup.load() != kInvalidID) return 0;
  MPEventID event = kInvalidID;
  const SInt32 err = MPCreateEvent(&event);
  if (err != 0) return err;
  eventGroup.store(event);
  locks.AcquireLock(kVLTThreadEventLock);
  return 0;
}

SInt32 VLTStdMPThread::Prepare() {
  const std::lock_guard<std::recursive_mutex> lock(startMutex);
  SInt32 err = InitializeIfNeeded();
  if (err == 0) err = MakeQueue();
  if (err == 0) err = MakeEventGroup();
  return err;
}

// Does nothing if the end of a run that came between is still to be taken.
SInt32 VLTStdMPThread::CreateTaskUnlessThere(bool* isStarted, bool* isThere) {
  const std::lock_guard<std::recursive_mutex> lock(startMutex);
  *isThere = HasTask();
  if (*isThere || !IsLastEndTaken()) return 0;
  // Taking the old end marked the thread terminated, which must not be said of the new run.
  locks.ReleaseMask(kCreatedAndTerminatedMask);
  *isStarted = true;
  return CreateTask();
}

// The task clears its id before its end message is posted, so a waiter may return before the
// message arrives. It must be taken before the next start: left in the queue, it would be mistaken
// for the end of the next task. It always arrives, because the queue reserves room for it. If
// another thread has taken it, that thread must have handled it; a thread that starts the next task
// while it handles the end of the last one has done enough.
bool VLTStdMPThread::IsLastEndTaken() {
  return (turn.IsCallers() ? endsTaken : endsProcessed).load() == runs.load();
}

// While a task runs nothing is outstanding: another thread may have started one after the caller
// looked, and waiting for the end of that one would take as long as it runs.
bool VLTStdMPThread::IsEndOutstanding() {
  const std::lock_guard<std::recursive_mutex> lock(startMutex);
  return !HasTask() && !IsLastEndTaken();
}

SInt32 VLTStdMPThread::TakeOutstandingEnd() {
  SInt32 err = 0;
  while (err == 0) {
    const uint32_t ticket = turn.Handled();
    if (!IsEndOutstanding()) break;
    err = WaitForProgress(ticket, kDurationForever);
  }
  return err;
}

SInt32 VLTStdMPThread::CreateTask() {
  // Counted before the task can run, because the task reads the number of its run.
  runs.fetch_add(1);
  const SInt32 err = MPCreateTask(taskEntry, taskParameter, stackSize, notifyQueue.load(),
                                  PointerOf(adminTag), PointerOf(endKind), taskOptions, &taskID);
  if (err != 0) {  // this run will send no end message
    endsTaken.fetch_add(1);
    endsProcessed.fetch_add(1);
  }
  return err;
}

SInt32 VLTStdMPThread::WaitForThreadCreation(SInt32 error) {
  const UInt32 run = CurrentRun();
  while (error == 0) {
    const uint32_t ticket = turn.Handled();
    // First whether the run is over, then whether its start was processed: the start of a run is
    // processed before its end, so the other way round a run that came and went between the two
    // looks would count as one that never reported.
    const bool isOver = IsThreadTerminated() || CurrentRun() != run;
    // The mark, or its trace if another thread has started the next run meanwhile.
    const bool wasCreated = run != 0 && static_cast<SInt32>(createdRun.load() - run) >= 0;
    if (IsThreadCreated() || wasCreated) break;
    error = isOver ? SInt32{kMPTaskAbortedErr} : WaitForProgress(ticket, kDurationForever);
  }
  return error;
}

// The task's side.

OSStatus VLTStdMPThread::_TaskProc(void* thread) {
  auto* self = static_cast<VLTStdMPThread*>(thread);
  const SInt32 created = self->ThreadCreated(self->RememberSelf());
  const SInt32 posted = self->PostThreadNotification(
      PointerOf(self->adminTag), PointerOf(self->startKind), PointerOfStatus(created));
  SInt32 err = FirstError(created, posted);
  if (err == 0) err = self->DoThreadTask();
  const SInt32 result = self->ThreadTerminating(err);
  // After this the object must not be used: its owner may destroy it now.
  self->ClearTask();
  return result;
}

SInt32 VLTStdMPThread::DoThreadTask() {
  // Meant: both fields lead back to this very body, so a worker overrides this function.
  return taskEntry != nullptr ? taskEntry(taskParameter) : 0;
}

SInt32 VLTStdMPThread::ThreadCreated(SInt32 result) { return result; }
SInt32 VLTStdMPThread::ThreadTerminating(SInt32 result) { return result; }

// Notifications.

SInt32 VLTStdMPThread::PostThreadNotification(void* tag, void* kind, void* value) {
  return MPNotifyQueue(notifyQueue.load(), tag, kind, value);
}

SInt32 VLTStdMPThread::WaitOnThreadNotification(void** tag, void** kind, void** value,
                                                SInt32 timeout) {
  const WaitLimit limit(timeout);
  const SInt32 err = turn.Begin(limit);
  return err != 0 ? err : TakeInTurn(tag, kind, value, limit);
}

SInt32 VLTStdMPThread::TakeInTurn(void** tag, void** kind, void** value, const WaitLimit& limit) {
  struct EndTurn {
    NotificationTurn& turn;
    ~EndTurn() { turn.End(); }
  } const end{turn};
  return TakeNotification(tag, kind, value, limit);
}

SInt32 VLTStdMPThread::TakeNotification(void** tag, void** kind, void** value,
                                        const WaitLimit& limit) {
  void* taken[3] = {};
  const SInt32 err =
      MPWaitOnQueue(notifyQueue.load(), &taken[0], &taken[1], &taken[2], limit.Left());
  if (err == kMPTimeoutErr) return err;
  const bool isEnd = err == 0 && CodeOf(taken[0]) == adminTag && CodeOf(taken[1]) == endKind &&
                     endsTaken.load() != runs.load();
  if (isEnd) endsTaken.fetch_add(1);
  // Meant: only a missing tag is replaced. Without the other two DoThreadNotification sees null.
  void* unbound[2] = {};
  void*& tagSeen = tag != nullptr ? *tag : taken[0];
  void*& kindSeen = kind != nullptr ? *kind : unbound[0];
  void*& valueSeen = value != nullptr ? *value : unbound[1];
  if (err == 0) {
    tagSeen = taken[0];
    if (kind != nullptr) kindSeen = taken[1];
    if (value != nullptr) valueSeen = taken[2];
  }
  const SInt32 result = DoThreadNotification(tagSeen, kindSeen, valueSeen, err);
  if (isEnd) endsProcessed.fetch_add(1);
  return result;
}

// One message since `ticket`, processed here or by another thread that has the turn.
SInt32 VLTStdMPThread::WaitForProgress(uint32_t ticket, SInt32 timeout) {
  const WaitLimit limit(timeout);
  OSStatus err = 0;
  if (!turn.BeginUnlessHandled(ticket, limit, &err)) return err;
  void* taken[3] = {};
  return TakeInTurn(&taken[0], &taken[1], &taken[2], limit);
}

SInt32 VLTStdMPThread::DoThreadNotification(void*& tag, void*& kind, void*& value, SInt32 error) {
  if (error != 0 || CodeOf(tag) != adminTag) return error;
  return DoAdminNotification(kind, value);
}

SInt32 VLTStdMPThread::DoAdminNotification(void* kind, void* value) {
  if (CodeOf(kind) == startKind) return NotifyThreadCreated(StatusOf(value));
  if (CodeOf(kind) == endKind) return NotifyThreadTerminated(StatusOf(value));
  return 0;
}

SInt32 VLTStdMPThread::NotifyThreadCreated(SInt32 result) {
  const SInt32 err = VLTMPThread::NotifyThreadCreated(result);
  createdRun.store(CurrentRun());
  return FirstError(err, MPSetEvent(eventGroup.load(), kCreatedFlag));
}

SInt32 VLTStdMPThread::FlushNotifications() {
  SInt32 err = 0;
  while (err == 0) {
    void* taken[3] = {};
    err = WaitOnThreadNotification(&taken[0], &taken[1], &taken[2], kDurationImmediate);
  }
  return err == kMPTimeoutErr ? 0 : err;
}

SInt32 VLTStdMPThread::SetNotifyQueueReserve(UInt32 count) {
  return MPSetQueueReserve(notifyQueue.load(), count);
}

SInt32 VLTStdMPThread::WaitForEvent(UInt32& flags, SInt32 timeout) {
  const SInt32 err = MPWaitForEvent(eventGroup.load(), &flags, timeout);
  return err != 0 ? err : DoThreadEvent(flags);
}

SInt32 VLTStdMPThread::DoThreadEvent(UInt32) { return 0; }

// Ending.

SInt32 VLTStdMPThread::StopThreadAsync() {
  locks.AcquireLock(kVLTThreadStopLock);
  return 0;
}

SInt32 VLTStdMPThread::StopThread() {
  // Read before the stop request: another thread may start the next run as soon as this one has
  // ended.
  const UInt32 run = CurrentRun();
  const SInt32 err = StopThreadAsync();
  return err != 0 ? err : WaitForRun(run, kDurationForever);
}

SInt32 VLTStdMPThread::WaitForCompletion(SInt32 timeout) {
  return WaitForRun(CurrentRun(), timeout);
}

SInt32 VLTStdMPThread::WaitForRun(UInt32 run, SInt32 timeout) {
  SInt32 err = 0;
  while (err == 0) {
    const uint32_t ticket = turn.Handled();
    if (!HasTask() || CurrentRun() != run) break;
    err = WaitForProgress(ticket, timeout);
  }
  return err;
}

SInt32 VLTStdMPThread::Finalize(SInt32 error) {
  SInt32 err = FirstError(error, StopThread());
  err = FirstError(err, WaitForCompletion(kDurationForever));
  return FirstError(err, _Finalize());
}

SInt32 VLTStdMPThread::_Finalize() {
  SInt32 err = 0;
  const MPQueueID queue = notifyQueue.exchange(kInvalidID);
  if (locks.ReleaseLock(kVLTThreadQueueLock) != 0 && queue != kInvalidID) {
    err = MPDeleteQueue(queue);
  }
  // An end message that is still to come finds no queue.
  endsTaken.store(runs.load());
  endsProcessed.store(runs.load());
  const MPEventID event = eventGroup.exchange(kInvalidID);
  if (locks.ReleaseLock(kVLTThreadEventLock) != 0 && event != kInvalidID) {
    err = FirstError(err, MPDeleteEvent(event));
  }
  return err;
}
