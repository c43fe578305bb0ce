#pragma once

#include <CoreServices/MacTypes.h>
#include <mach/thread_act.h>

// Port rights of this task. A port name is a 32-bit number that means something only inside the
// process; send and receive rights to one port share one name, so looking up a service that this
// task serves gives the receive right's own name. Names are not reused soon. All calls may be made
// from any thread. Numbers are the kernel interface's own.

using kern_return_t = SInt32;
using mach_msg_return_t = SInt32;
using integer_t = SInt32;
using natural_t = UInt32;
using boolean_t = SInt32;
using mach_port_t = UInt32;
using mach_port_name_t = UInt32;
using ipc_space_t = mach_port_t;
using task_t = mach_port_t;
using mach_port_right_t = UInt32;
using mach_msg_type_name_t = UInt32;
using mach_msg_bits_t = UInt32;
using mach_msg_size_t = UInt32;
using mach_msg_id_t = SInt32;

#define MACH_PORT_NULL (static_cast<mach_port_t>(0))
#define MACH_PORT_DEAD (~static_cast<mach_port_t>(0))

enum : kern_return_t {
  KERN_SUCCESS = 0,
  KERN_INVALID_ADDRESS = 1,
  KERN_NO_SPACE = 3,
  KERN_INVALID_ARGUMENT = 4,
  KERN_FAILURE = 5,
  KERN_RESOURCE_SHORTAGE = 6,
  KERN_NOT_RECEIVER = 7,
  KERN_NO_ACCESS = 8,
  KERN_NAME_EXISTS = 13,
  KERN_ABORTED = 14,
  KERN_INVALID_NAME = 15,
  KERN_INVALID_TASK = 16,
  KERN_INVALID_RIGHT = 17,
  KERN_INVALID_VALUE = 18,
  KERN_UREFS_OVERFLOW = 19,
  KERN_INVALID_CAPABILITY = 20,
  KERN_RIGHT_EXISTS = 21,
  KERN_TERMINATED = 37,
  KERN_INVALID_POLICY = 38,
  KERN_POLICY_LIMIT = 39,
};

enum : mach_port_right_t {
  MACH_PORT_RIGHT_SEND = 0,
  MACH_PORT_RIGHT_RECEIVE = 1,
  MACH_PORT_RIGHT_SEND_ONCE = 2,
  MACH_PORT_RIGHT_PORT_SET = 3,
  MACH_PORT_RIGHT_DEAD_NAME = 4,
};

enum : mach_msg_type_name_t {
  MACH_MSG_TYPE_MOVE_RECEIVE = 16,
  MACH_MSG_TYPE_MOVE_SEND = 17,
  MACH_MSG_TYPE_MOVE_SEND_ONCE = 18,
  MACH_MSG_TYPE_COPY_SEND = 19,
  MACH_MSG_TYPE_MAKE_SEND = 20,
  MACH_MSG_TYPE_MAKE_SEND_ONCE = 21,
};

enum : int { TASK_KERNEL_PORT = 1, TASK_HOST_PORT = 2, TASK_BOOTSTRAP_PORT = 4 };

// The message that a port's callout receives. It is opaque except for these fields, and valid
// during the callout only.
struct mach_msg_header_t {
  mach_msg_bits_t msgh_bits;
  mach_msg_size_t msgh_size;  // bytes of the frame after the header
  mach_port_t msgh_remote_port;
  mach_port_t msgh_local_port;  // the port it arrived on
  mach_msg_size_t msgh_reserved;
  mach_msg_id_t msgh_id;
};

#pragma GCC visibility push(default)
extern "C" {

mach_port_t mach_task_self(void);  // constant for the process

// For TASK_BOOTSTRAP_PORT stores the bootstrap server's port. Returns KERN_INVALID_ARGUMENT for
// another task or selector, and KERN_FAILURE if this user's session directory cannot be used; one
// log line then gives the reason and the remedy.
kern_return_t task_get_special_port(task_t task, int which, mach_port_t* port);

// Makes a port and its receive right, which take an entry of the port table and no file descriptor.
// Returns KERN_INVALID_VALUE for another kind of right, and KERN_NO_SPACE if the table is full.
kern_return_t mach_port_allocate(ipc_space_t task, mach_port_right_t right, mach_port_name_t* name);

// MACH_MSG_TYPE_MAKE_SEND over one's own receive right adds a send right under the same name.
kern_return_t mach_port_insert_right(ipc_space_t task, mach_port_name_t name, mach_port_t right,
                                     mach_msg_type_name_t kind);

// Drops one user reference of a send right. KERN_INVALID_RIGHT for a pure receive right. The
// entry itself stays until the port is dead, so copies of the name remain usable.
kern_return_t mach_port_deallocate(ipc_space_t task, mach_port_name_t name);

// Removes every right with the right number `name`. Removing the receive right destroys the port:
// its registration is withdrawn, and messages that no callout has received are dropped, so that
// their senders get connectionInvalid. The reply to a request whose callout is running can still be
// sent. Waits at most 1 s for replies that are being written.
kern_return_t mach_port_destroy(ipc_space_t task, mach_port_name_t name);

}  // extern "C"
#pragma GCC visibility pop
