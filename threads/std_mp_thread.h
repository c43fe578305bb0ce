#pragma once

#include <atomic>
#include <mutex>

#include "threads/abstract_thread.h"
#include "threads/notification_turn.h"

// VLTStdMPThread is a worker: a task that reports its start and its end to the owner through a
// notification queue, and an event group for flags. Subclasses override DoThreadTask.
//
// constructed -> initialised -> queue and event group created -> task running (marked created after
// its start message was processed) -> asked to stop -> ended (marked terminated after the end
// message was processed) -> finalised. A worker that has ended may be started again; it keeps its
// queue and its event group.
//
// The owner starts the worker, waits for it, stops and finalises it. The task only posts messages;
// the marks are set by a thread that waits. Several threads may start the worker and wait for it at
// once: one task is created, and all of them see its marks. Messages are processed one at a time,
// so a slow handler delays the threads that wait for a later message. A handler may start the
// worker.
//
// The destructor does not stop the task: before it destroys the object the owner must finalise it
// or wait for the end of the task. It may destroy the object right after WaitForCompletion.
//
// A message is three pointers: tag, kind and value. The tag 'notf' marks this system's own
// messages; a subclass uses another tag for its messages and overrides DoThreadNotification. Codes
// and statuses are passed as numbers in pointers.
class VLTStdMPThread : public VLTMPThread {
 public:
  // Stores `proc` and `argument` for subclasses; this class does not call them. `stackSize` is in
  // bytes, 0 for the default; `options` are those of MPCreateTask.
  VLTStdMPThread(SInt32 (*proc)(void*), void* argument, UInt32 stackSize, UInt32 options);
  ~VLTStdMPThread() override;

  // Stops the task, waits for its end and deletes the queue and the event group. Returns the first
  // failure, or `error` if that is not 0. The stop request stays set, also if the worker was never
  // started.
  SInt32 Finalize(SInt32 error) override;
  SInt32 NotifyThreadCreated(SInt32 result) override;  // also sets flag 1 of the event group

  // Handles one message that was taken from the queue; `error` is the result of taking it. Returns
  // the result of WaitOnThreadNotification: `error` if that is not 0, and 0 for a message with a
  // tag that it does not know.
  virtual SInt32 DoThreadNotification(void*& tag, void*& kind, void*& value, SInt32 error);
  virtual SInt32 DoAdminNotification(void* kind, void* value);

  // Creates what is missing, starts the task and waits until the task has reported its start.
  // Returns 0, also if the task is running already; kMPTaskAbortedErr if it ended without reporting
  // its start; otherwise the platform's error. After a failure this object still owns what it has
  // created. An earlier stop request stays set: a task that polls for it ends at once.
  virtual SInt32 StartThread();

  // Sets the stop request, which the task is expected to poll. Returns 0.
  virtual SInt32 StopThreadAsync();
  // Sets the stop request and waits for the end of the current run. Not from the task itself.
  virtual SInt32 StopThread();

  // Waits for flags of the event group, passes them to DoThreadEvent and returns its result.
  virtual SInt32 WaitForEvent(UInt32& flags, SInt32 timeout);

  // Processes messages until the task has ended. Returns 0, also if no task runs; kMPTimeoutErr if
  // no message came for `timeout`. The time starts again with each message. Not from the task
  // itself.
  virtual SInt32 WaitForCompletion(SInt32 timeout);

  // Hooks. The last three run on the task: DoThreadTask is its work, the other two return their
  // argument.
  virtual SInt32 DoThreadEvent(UInt32 flags);  // runs on the thread that waits
  virtual SInt32 ThreadCreated(SInt32 result);
  virtual SInt32 DoThreadTask();
  virtual SInt32 ThreadTerminating(SInt32 result);

  // Any thread may post, the task too. Returns the platform's result.
  SInt32 PostThreadNotification(void* tag, void* kind, void* value);

  // Takes one message and processes it. Writes each output that is not null. Returns kMPTimeoutErr
  // if no message came within `timeout`, otherwise the result of DoThreadNotification. Meant: if
  // `kind` or `value` is null, DoThreadNotification sees null there, because subclasses were
  // written so.
  SInt32 WaitOnThreadNotification(void** tag, void** kind, void** value, SInt32 timeout);

  SInt32 FlushNotifications();  // processes the messages that are waiting

  // Limits the queue to `count` messages, and reserves room for them; 0 stands for as many as
  // memory holds. The worker must have been started.
  SInt32 SetNotifyQueueReserve(UInt32 count);

 protected:
  static OSStatus _TaskProc(void* thread);

  SInt32 WaitForThreadCreation(SInt32 error);
  SInt32 _Finalize();  // deletes the queue and the event group, if this object has to

  // Returns the number of the current run or, between runs, of the last one.
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
  bool IsEndOutstanding();
  SInt32 TakeOutstandingEnd();
  SInt32 TakeNotification(void** tag, void** kind, void** value, const WaitLimit& limit);
  SInt32 TakeInTurn(void** tag, void** kind, void** value, const WaitLimit& limit);
  SInt32 WaitForProgress(uint32_t ticket, SInt32 timeout);

  // Held while the task is created, but not while anything is waited for. Recursive: Initialize may
  // start the thread.
  std::recursive_mutex startMutex;
  NotificationTurn turn;
  std::atomic<UInt32> runs{0};  // tasks that were created
  // How many of their end messages were taken from the queue, and how many were processed.
  std::atomic<UInt32> endsTaken{0};
  std::atomic<UInt32> endsProcessed{0};
  std::atomic<UInt32> createdRun{0};  // the latest run whose start was processed
};
