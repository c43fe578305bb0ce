#include <mach/mach.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/thread_object.h"

namespace {

constexpr integer_t kOrdinaryPriority = 31;
constexpr integer_t kOrdinaryLimit = 63;
constexpr integer_t kGreatestPriority = 127;
constexpr integer_t kNotDepressed = -1;

// A thread's port is its kernel number (at most 22 bits), spread over bits in such a way that it is
// not one of the right numbers of the port table: its index is below the first that the table uses.
constexpr mach_port_t kThreadMark = 0x800;
constexpr unsigned kLowBits = 11;
constexpr unsigned kHighShift = 20;

mach_port_t PortOfThread(pid_t thread) {
  const auto number = static_cast<uint32_t>(thread);
  const uint32_t low = number & ((1u << kLowBits) - 1);
  return (number >> kLowBits) << kHighShift | kThreadMark | low;
}

// The scheduling of a thread that has called mach_thread_self. Those of live threads form a list.
struct ThreadRecord {
  ThreadRecord();
  ~ThreadRecord();

  const uint32_t generation = HostForkGeneration();
  const pid_t thread = gettid();
  const mach_port_t port = PortOfThread(thread);
  integer_t maxPriority = kOrdinaryLimit;
  integer_t basePriority = kOrdinaryPriority;
  integer_t quantum = 0;
  ThreadRecord* next = nullptr;
  ThreadRecord** link = nullptr;
};

constinit std::mutex sMutexStorage;
constinit std::mutex* sMutex = &sMutexStorage;
constinit ThreadRecord* sThreads = nullptr;

alignas(std::mutex) constinit char sChildMutex[sizeof(std::mutex)] = {};

// A forked child does not have the other threads.
void ForgetAllInChild() {
  sMutex = new (sChildMutex) std::mutex;
  sThreads = nullptr;
}

ThreadRecord::ThreadRecord() {
  static const bool sInstalled = (HostAtForkInChild(ForgetAllInChild), true);
  (void)sInstalled;
  const std::lock_guard<std::mutex> lock(*sMutex);
  next = sThreads;
  link = &sThreads;
  if (next != nullptr) next->link = &next;
  sThreads = this;
}

ThreadRecord::~ThreadRecord() {
  if (generation != HostForkGeneration()) return;  // in no list of this process
  const std::lock_guard<std::mutex> lock(*sMutex);
  *link = next;
  if (next != nullptr) next->link = link;
}

struct OwnRecord {
  ThreadRecord* record = nullptr;
  ~OwnRecord() { delete record; }
};

ThreadRecord* FindLocked(thread_act_t port) {
  ThreadRecord* record = sThreads;
  while (record != nullptr && record->port != port) record = record->next;
  return record;
}

// Threads and processes that the thread creates begin with ordinary scheduling.
void Apply(pid_t thread, policy_t policy, integer_t priority) {
  if (policy == POLICY_TIMESHARE) {
    const sched_param none = {};
    (void)sched_setscheduler(thread, SCHED_OTHER, &none);
    return;
  }
  const int kind = policy == POLICY_RR ? SCHED_RR : SCHED_FIFO;
  const int least = sched_get_priority_min(kind);
  const int greatest = sched_get_priority_max(kind);
  sched_param wanted = {};
  wanted.sched_priority = least + (greatest - least) * priority / kGreatestPriority;
  (void)sched_setscheduler(thread, kind | SCHED_RESET_ON_FORK, &wanted);
}

}  // namespace

mach_port_t mach_thread_self(void) {
  return HostGuard(mach_port_t{MACH_PORT_NULL}, [] {
    ThreadRecord*& record = HostThreadObject<OwnRecord>().record;
    if (record == nullptr || record->generation != HostForkGeneration()) {
      delete record;
      record = nullptr;
      record = new ThreadRecord;
    }
    return record->port;
  });
}

kern_return_t thread_info(thread_act_t thread, thread_flavor_t flavor, thread_info_t out,
                          mach_msg_type_number_t* count) {
  if (flavor != THREAD_SCHED_TIMESHARE_INFO && flavor != THREAD_SCHED_RR_INFO) {
    return KERN_INVALID_ARGUMENT;
  }
  if (out == nullptr || count == nullptr || *count < POLICY_RR_INFO_COUNT) {
    return KERN_INVALID_ARGUMENT;
  }
  const std::lock_guard<std::mutex> lock(*sMutex);
  const ThreadRecord* record = FindLocked(thread);
  if (record == nullptr) return KERN_INVALID_ARGUMENT;
  const integer_t third = flavor == THREAD_SCHED_RR_INFO ? record->quantum : record->basePriority;
  const policy_rr_info info = {record->maxPriority, record->basePriority, third, 0, kNotDepressed};
  memcpy(out, &info, sizeof info);
  *count = POLICY_RR_INFO_COUNT;
  return KERN_SUCCESS;
}

kern_return_t thread_policy(thread_act_t thread, policy_t policy, policy_base_t base,
                            mach_msg_type_number_t baseCount, boolean_t setLimit) {
  if (policy != POLICY_TIMESHARE && policy != POLICY_RR && policy != POLICY_FIFO) {
    return KERN_INVALID_POLICY;
  }
  const mach_msg_type_number_t needed = policy == POLICY_RR ? 2 : 1;
  if (base == nullptr || baseCount < needed || base[0] < 0) return KERN_INVALID_ARGUMENT;
  const std::lock_guard<std::mutex> lock(*sMutex);
  ThreadRecord* record = FindLocked(thread);
  if (record == nullptr) return KERN_INVALID_ARGUMENT;
  const integer_t limit = setLimit != 0 ? kGreatestPriority : record->maxPriority;
  if (base[0] > limit) return KERN_POLICY_LIMIT;
  record->basePriority = base[0];
  record->quantum = policy == POLICY_RR ? base[1] : 0;
  if (setLimit != 0) record->maxPriority = base[0];
  // The thread's end waits for the lock, so the number is still that of this thread.
  Apply(record->thread, policy, base[0]);
  return KERN_SUCCESS;
}
