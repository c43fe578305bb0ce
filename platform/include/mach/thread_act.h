#pragma once

#include <CoreServices/MacTypes.h>

// Threads of this task, by the names of their ports, and their scheduling. Priorities are on the
// scale 0 to 127: ordinary threads have 31 and may have 63. Included by <mach/mach.h>.

using thread_act_t = UInt32;  // a mach_port_t
using thread_flavor_t = SInt32;
using thread_info_t = SInt32*;
using mach_msg_type_number_t = UInt32;  // counts 32-bit words
using policy_t = SInt32;
using policy_base_t = SInt32*;

enum : policy_t { POLICY_TIMESHARE = 1, POLICY_RR = 2, POLICY_FIFO = 4 };

enum : thread_flavor_t {
  THREAD_BASIC_INFO = 3,  // not supplied
  THREAD_SCHED_TIMESHARE_INFO = 10,
  THREAD_SCHED_RR_INFO = 11,
  THREAD_SCHED_FIFO_INFO = 12,  // not supplied
};

struct policy_timeshare_info {
  SInt32 max_priority;
  SInt32 base_priority;
  SInt32 cur_priority;
  SInt32 depressed;
  SInt32 depress_priority;
};

struct policy_rr_info {
  SInt32 max_priority;
  SInt32 base_priority;
  SInt32 quantum;
  SInt32 depressed;
  SInt32 depress_priority;
};

struct policy_rr_base {
  SInt32 base_priority;
  SInt32 quantum;
};

struct policy_rr_limit {
  SInt32 max_priority;
};

using policy_timeshare_info_data_t = policy_timeshare_info;
using policy_rr_info_data_t = policy_rr_info;
using policy_rr_base_data_t = policy_rr_base;
using policy_rr_limit_data_t = policy_rr_limit;

enum : mach_msg_type_number_t {
  POLICY_TIMESHARE_INFO_COUNT = sizeof(policy_timeshare_info) / sizeof(SInt32),
  POLICY_RR_INFO_COUNT = sizeof(policy_rr_info) / sizeof(SInt32),
  POLICY_RR_BASE_COUNT = sizeof(policy_rr_base) / sizeof(SInt32),
};

#pragma GCC visibility push(default)
extern "C" {

// The calling thread's port: the same in every call, unlike every other live thread's. Thread
// ports live as long as their threads; references to them are not counted.
UInt32 mach_thread_self(void);

// Reports the scheduling of a thread of this task that has called mach_thread_self; flavours 10 and
// 11. `*count` is the number of words that `out` has room for, and receives the number written, 5.
// Returns KERN_INVALID_ARGUMENT for another thread, also one that has ended, for another flavour,
// and if there is too little room.
SInt32 thread_info(thread_act_t thread, thread_flavor_t flavor, thread_info_t out,
                   mach_msg_type_number_t* count);

// Sets the scheduling of a thread. `base` contains the base priority and, for POLICY_RR, the
// quantum after it. `setLimit` makes that priority the limit as well. The values are recorded and
// applied as far as the kernel allows this process; a refusal by the kernel is not an error.
// Returns KERN_INVALID_ARGUMENT for the thread, the count or a priority below 0,
// KERN_INVALID_POLICY or KERN_POLICY_LIMIT.
SInt32 thread_policy(thread_act_t thread, policy_t policy, policy_base_t base,
                     mach_msg_type_number_t baseCount, SInt32 setLimit);

}  // extern "C"
#pragma GCC visibility pop
