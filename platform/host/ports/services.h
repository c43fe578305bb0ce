#pragma once

#include <mach/mach.h>

// The port names that this process has registered: which of its receive rights owns each. No other
// part of the process stores them; the claim on a name's file belongs to the receive right's
// receiver. Any thread. A forked child has registered nothing.

// Registers `port`, a receive right of this process, under `service` (1 to 127 bytes). Results of
// bootstrap_register. Registering the same right under its own name again succeeds.
kern_return_t HostRegisterService(const char* service, mach_port_t port);

// Gives the name up. Returns BOOTSTRAP_UNKNOWN_SERVICE if this process does not own it.
kern_return_t HostWithdrawService(const char* service);

// The receive right that is registered under `service`, or MACH_PORT_NULL.
mach_port_t HostFindOwnService(const char* service);

// Forgets the names of a right that is about to be destroyed; its receiver gives them up.
void HostForgetServicesOf(mach_port_t port);
