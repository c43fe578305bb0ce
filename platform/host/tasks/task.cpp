#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/host/base/thread_end.h"
#include "platform/host/tasks/objects.h"
#include "platform/host/tasks/queue.h"

// Tasks are detached threads.
//
// created --the thread runs--> running --entry returns or MPExit--> its thread's objects are
// destroyed --> id dead, message posted. After its entry the task uses nothing that belongs to its
// creator.

namespace {

constexpr ByteCount kLeastStack = 256u << 10;  // a sanitizer's frames are large
constexpr MPTaskOptions kKnownOptions =
    kMPCreateTaskTakesAllExceptionsMask | kMPCreateTaskNotDebuggableMask;

struct Plan {
  TaskProc entry = nullptr;
  void* parameter = nullptr;
  MPQueueID notifyQueue = kInvalidID;
  void* terminationParameters[2] = {};
};

struct Task : HostMPObject {
  Plan plan;
  HostMPCondition changed;
};

constinit HostMPTable<Task, HostMPKind::kTask> sTasks;

constinit thread_local MPTaskID sCurrentTask = kInvalidID;
constinit thread_local OSStatus sTaskStatus = noErr;

void* AsPointer(OSStatus status) { return reinterpret_cast<void*>(intptr_t{status}); }

// Registered first, hence the last to run: the receiver of the message finds everything else that
// the thread held given back, its run loop too.
constinit thread_local Plan sPlan = {};
void EndTask() {
  {
    auto task = sTasks.Find(sCurrentTask);
    if (task) sTasks.Delete(task);
  }
  if (sPlan.notifyQueue == kInvalidID) return;
  HostPostPromised(sPlan.notifyQueue, sPlan.terminationParameters[0],
                   sPlan.terminationParameters[1], AsPointer(sTaskStatus));
}
constinit thread_local HostThreadEnd sTaskEnd{EndTask};

Plan PlanOf(MPTaskID id) {
  auto task = sTasks.Find(id);
  return task->plan;
}

void* RunTask(void* id) {
  sCurrentTask = static_cast<MPTaskID>(id);
  sPlan = PlanOf(sCurrentTask);
  HostAtThreadEnd(sTaskEnd);
  // An end that is neither a return nor MPExit leaves this.
  sTaskStatus = kMPTaskAbortedErr;
  sTaskStatus = sPlan.entry(sPlan.parameter);
  return nullptr;
}

OSStatus StartThread(MPTaskID id, ByteCount stackSize) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return kMPInsufficientResourcesErr;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  int result = 0;
  if (stackSize != 0) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const auto least = static_cast<size_t>(std::max<int64_t>(kLeastStack, PTHREAD_STACK_MIN));
    const size_t size = std::max(size_t{stackSize}, least);
    result = size > SIZE_MAX - page
                 ? EINVAL
                 : pthread_attr_setstacksize(&attributes, (size + page - 1) / page * page);
  }
  pthread_t thread;
  if (result == 0) result = pthread_create(&thread, &attributes, RunTask, id);
  pthread_attr_destroy(&attributes);
  return result == 0 ? OSStatus{noErr} : OSStatus{kMPInsufficientResourcesErr};
}

// The variable that takes the id may be read and cleared by other threads meanwhile.
void Store(MPTaskID* out, MPTaskID id) {
  if (out != nullptr) std::atomic_ref<MPTaskID>(*out).store(id, std::memory_order_release);
}

OSStatus CreateTask(const Plan& plan, ByteCount stackSize, MPTaskID* out) {
  uintptr_t number = 0;
  {
    auto task = sTasks.Create(&number);
    if (!task) return kMPInsufficientResourcesErr;
    task->plan = plan;
  }
  const auto id = reinterpret_cast<MPTaskID>(number);
  Store(out, id);
  const OSStatus err = StartThread(id, stackSize);
  if (err == noErr) return noErr;
  Store(out, kInvalidID);
  auto task = sTasks.Find(id);
  if (task) sTasks.Delete(task);
  return err;
}

}  // namespace

OSStatus MPCreateTask(TaskProc entryPoint, void* parameter, ByteCount stackSize,
                      MPQueueID notifyQueue, void* terminationParameter1,
                      void* terminationParameter2, MPTaskOptions options, MPTaskID* task) {
  Store(task, kInvalidID);
  if (entryPoint == nullptr) return paramErr;
  if ((options & ~kKnownOptions) != 0) return kMPInsufficientResourcesErr;
  OSStatus err = notifyQueue == kInvalidID ? OSStatus{noErr} : HostPromiseMessage(notifyQueue);
  if (err != noErr) return err;
  const Plan plan = {
      entryPoint, parameter, notifyQueue, {terminationParameter1, terminationParameter2}};
  err = CreateTask(plan, stackSize, task);
  if (err != noErr && notifyQueue != kInvalidID) HostWithdrawPromise(notifyQueue);
  return err;
}

void MPExit(OSStatus status) {
  sTaskStatus = status;
  pthread_exit(nullptr);
}

MPTaskID MPCurrentTaskID(void) { return sCurrentTask; }

Boolean MPTaskIsPreemptive(MPTaskID task) {
  return task == kInvalidID || static_cast<bool>(sTasks.Find(task));
}

void MPYield(void) { sched_yield(); }

ItemCount MPProcessors(void) {
  const auto count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? static_cast<ItemCount>(count) : 1;
}
