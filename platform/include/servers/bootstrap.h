#pragma once

#include <mach/mach.h>

// The name service of one user's session. A name has at most one owner; it is free again the
// moment its owner ends, however that happens. There is no server process: a claim is a file lock
// that the kernel drops with its holder.

#define BOOTSTRAP_MAX_NAME_LEN 128  // bytes, the NUL included

using name_t = char[BOOTSTRAP_MAX_NAME_LEN];

enum : kern_return_t {
  BOOTSTRAP_SUCCESS = 0,
  BOOTSTRAP_NOT_PRIVILEGED = 1100,
  BOOTSTRAP_NAME_IN_USE = 1101,
  BOOTSTRAP_UNKNOWN_SERVICE = 1102,
  BOOTSTRAP_SERVICE_ACTIVE = 1103,
  BOOTSTRAP_BAD_COUNT = 1104,
  BOOTSTRAP_NO_MEMORY = 1105,
};

#pragma GCC visibility push(default)
extern "C" {

// Enters the receive right `port` of this task under `name` (1 to 127 bytes, any bytes but NUL).
// Atomic among any number of racers: one gets 0, the others BOOTSTRAP_NAME_IN_USE. The same live
// port again under its own name is 0. MACH_PORT_NULL withdraws what this task registered.
//
// Errors  KERN_INVALID_ARGUMENT (name), MACH_PORT_NULL or foreign `bp` KERN_INVALID_NAME,
//         KERN_INVALID_RIGHT (not a receive right of this task), BOOTSTRAP_NOT_PRIVILEGED (the
//         session directory refuses us), BOOTSTRAP_NO_MEMORY (descriptors, disk), KERN_FAILURE.
kern_return_t bootstrap_register(mach_port_t bp, const name_t name, mach_port_t port);

// A send right to the port that is registered under `name`, or BOOTSTRAP_UNKNOWN_SERVICE with
// `*port` null. Wakes no other process.
kern_return_t bootstrap_look_up(mach_port_t bp, const name_t name, mach_port_t* port);

}  // extern "C"
#pragma GCC visibility pop
