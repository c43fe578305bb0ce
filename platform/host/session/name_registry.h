#pragma once

#include <servers/bootstrap.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/host/session/introspect.h"

// The port names of the session. A process owns a name while it holds a lock on byte 0 of the
// name's file. It publishes its port with a second lock, on byte 1 + port id. The kernel removes
// both locks when the owner ends, so a look-up never returns a stale port. Any thread.

// Claims `name` (1 to 127 bytes) and publishes `portId`, whose socket is bound and listening.
//
// Returns 0 and stores the file descriptor that holds the claim, which the caller passes to
// HostReleaseName. Otherwise returns BOOTSTRAP_NAME_IN_USE, BOOTSTRAP_NOT_PRIVILEGED,
// BOOTSTRAP_NO_MEMORY or KERN_FAILURE.
kern_return_t HostClaimName(const char* name, uint64_t portId, int* claim);

// Gives a claim up and removes its file.
void HostReleaseName(const char* name, int claim);

// Stores the port id that the owner of `name` has published. Returns BOOTSTRAP_UNKNOWN_SERVICE if
// no process owns the name, also if none can (an empty name, or one over 127 bytes). A thread that
// looks the same name up twice in a row keeps the name's file open until it looks another one up or
// ends. Each look-up queries the lock, so the result is always the present one.
kern_return_t HostFindName(const char* name, uint64_t* portId);

// Returns the bootstrap status of a failed system call: BOOTSTRAP_NOT_PRIVILEGED;
// BOOTSTRAP_NO_MEMORY for a lack of file descriptors, disk space or memory; otherwise KERN_FAILURE.
// Logs the reason unless it is the one that was logged last.
kern_return_t HostRegistrationStatus(int error);

// Returns a published name whose owner's pid `isOwner` accepts, or "" if there is none. Returns the
// hidden name of a process's event port only if there is no other. Throws std::bad_alloc.
std::string HostFindNameOwnedBy(const std::function<bool(pid_t)>& isOwner);

// All published names, for people. Unsorted.
std::vector<HostNameInfo> HostReadNames();

// The hidden name of a process's own event port: byte 1, then its serial number.
std::string HostEventPortName(const ProcessSerialNumber& psn);

// The file name of a port's socket in ports/: 16 lower-case hexadecimal digits and a NUL.
void HostPortFileName(uint64_t portId, char (&text)[17]);
