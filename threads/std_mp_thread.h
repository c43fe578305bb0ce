#pragma once

#include <atomic>
#include <mutex>

#include "threads/abstract_thread.h"
#include "threads/notification_turn.h"

// VLTStdMPThread is a worker: a task of its own whose start and end are reported to its owner
// through a notification queue, and an event group for flags. Subclasses override DoThreadTask.
//
// constructed -> initialised -> queue and event group made -> task running (marked created once its
// start message was processed) -> asked to stop -> ended (marked terminated once the end message
// was processed) -> finalised. A worker that ended may be started again, with the same queue and
// event group.
//
// The owner starts, waits, stops and finalises. The marks are set on the owner's side, while it
// waits: the task posts messages only. Several threads may start and wait at once; the task starts
// once, and all of them see its marks. The owner must finalise, or wait for the end, before it
// destroys the object: the destructor does not stop the task. Right after WaitForCompletion it may.
//
// Messages are three pointers. The tag 'notf' marks the system's own; a subclass gives its messages
// another and overrides DoThreadNotification. Codes and statuses travel as numbers in pointers.
class VLTStdMPThread : public VLTMPThread {
 public:
  // `proc` and `argument` are stored for subclasses; this class does not call them. `stackSize` in
  // bytes, 0 for the default; `options` as MPCreateTask takes them.
  VLTStdMPThread(SInt32 (*proc)(void*), void* argument, UInt32 stackSize, UInt32 options);
  ~VLTStdMPThread() override;

  // Stops, waits for the end and deletes queue and event group. The first failure, `error` before
  // all. Leaves the stop request standing, also on a worker that was never started.
  SInt32 Finalize(SInt32 error) override;
  SInt32 NotifyThreadCreated(SInt32 result) override;  // also sets flag 1 of the event group

  // One message that was taken. The result is WaitOnThreadNotification's: `error` if that is not 0,
  // 0 for a message of nobody's.
  virtual SInt32 DoThreadNotification(void*& tag, void*& kind, void*& value, SInt32 error);
  virtual SInt32 DoAdminNotification(void* kind, void* value);

  // Makes what is missing, starts the task and waits until it has reported its start. 0 also when
  // the task exists already; kMPTaskAbortedErr when it ended without reporting; the platform's
  // codes. What was made stays ours after a failure. A stop request from before is not withdrawn: a
  // task that polls for it ends at once.
  virtual SInt32 StartThread();

  virtual SInt32 StopThreadAsync();  // asks; the task is expected to poll. Returns 0
  // Asks, and waits for the end of the run that was asked. Not from the task itself.
  virtual SInt32 StopThread();

  // Waits for flags and hands them to DoThreadEvent, whose result it returns.
  virtual SInt32 WaitForEvent(UInt32& flags, SInt32 timeout);

  // Processes messages until the task has ended. 0 also when none runs; kMPTimeoutErr when nothing
  // came for `timeout`, which counts anew for each message. Not from the task itself.
  virtual SInt32 WaitForCompletion(SInt32 timeout);

  // Hooks. The last three run on the task: the first and last pass on what they are given, the
  // middle one is the task's work.
  virtual SInt32 DoThreadEvent(UInt32 flags);  // on the thread that waits
  virtual SInt32 ThreadCreated(SInt32 result);
  virtual SInt32 DoThreadTask();
  virtual SInt32 ThreadTerminating(SInt32 result);

  // From any thread, the task too. The platform's result.
  SInt32 PostThreadNotification(void* tag, void* kind, void* value);

  // Takes one message, each output null or written when there was one, and processes it. Returns
  // kMPTimeoutErr when none came in time, else what DoThreadNotification says. Without an output
  // for the kind or the value DoThreadNotification finds null there.
  SInt32 WaitOnThreadNotification(void** tag, void** kind, void** value, SInt32 timeout);

  SInt32 FlushNotifications();  // processes what is there already

  // Room for so many messages and no more, 0 for as many as memory holds. Once started only.
  SInt32 SetNotifyQueueReserve(UInt32 count);

 protected:
  static OSStatus _TaskProc(void* thread);

  SInt32 WaitForThreadCreation(SInt32 error);
  SInt32 _Finalize();  // deletes the queue and the event group that are ours

  // The run in progress or, between runs, the last one.
  UInt32 CurrentRun() const { return runs.load(); }
  SInt32 WaitForRun(UInt32 run, SInt32 timeout);

  std::atomic<MPQueueID> notifyQueue{kInvalidID};
  std::atomic<MPEventID> eventGroup{kInvalidID};
  OSType adminTag = FourCC('n', 'o', 't', 'f');
  OSType startKind = FourCC('s', 't', 'r', 't');
  OSType endKind = FourCC('t', 'e', 'r', 'm');
  TaskProc taskEntry = _TaskProc;
  void* taskParameter = this;
  UInt32 taskOptions;
  UInt32 stackSize;
  SInt32 (*clientProc)(void*);
  void* clientArgument;

 private:
  SInt32 Prepare();
  SInt32 MakeQueue();
  SInt32 MakeEventGroup();
  SInt32 CreateTask();
  SInt32 CreateTaskUnlessThere(bool* isStarted, bool* isThere);
  bool IsLastEndTaken();
  SInt32 TakeOutstandingEnd();
  SInt32 TakeNotification(void** tag, void** kind, void** value, const WaitLimit& limit);
  SInt32 TakeInTurn(void** tag, void** kind, void** value, const WaitLimit& limit);
  SInt32 WaitForProgress(uint32_t ticket, SInt32 timeout);

  // Held while the task is created, but not while anything is waited for. Recursive: Initialize may
  // start the thread.
  std::recursive_mutex startMutex;
  NotificationTurn turn;
  std::atomic<UInt32> runs{0};  // tasks that were created
  // Of these, whose end message was taken from the queue, and whose was processed as well.
  std::atomic<UInt32> endsTaken{0};
  std::atomic<UInt32> endsProcessed{0};
  std::atomic<UInt32> createdRun{0};  // the latest run whose start was processed
};
