#pragma once

#include <mach/mach.h>

// The port names of one user's session. A name has at most one owner, and is free as soon as its
// owner ends, however that happens. There is no server process: a claim is a file lock that the
// kernel removes when its holder ends. Any thread.

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

// Registers the receive right `port` of this task under `name`, which has 1 to 127 bytes of any
// value but NUL. Of any number of processes that try this at once, one gets 0 and the others get
// BOOTSTRAP_NAME_IN_USE. Registering the same live port under its name again gives 0.
// MACH_PORT_NULL withdraws this task's registration.
//
// Errors  KERN_INVALID_ARGUMENT (the name), KERN_INVALID_NAME (`bp` is not the bootstrap server),
//         KERN_INVALID_RIGHT (not a receive right of this task), BOOTSTRAP_NOT_PRIVILEGED (no
//         access to the session directory), BOOTSTRAP_NO_MEMORY (memory, file descriptors or disk
//         space), KERN_FAILURE
kern_return_t bootstrap_register(mach_port_t bp, const name_t name, mach_port_t port);

// Stores a send right to the port that is registered under `name` and returns 0, or stores null and
// returns BOOTSTRAP_UNKNOWN_SERVICE. Wakes no other process.
kern_return_t bootstrap_look_up(mach_port_t bp, const name_t name, mach_port_t* port);

}  // extern "C"
#pragma GCC visibility pop
