#pragma once

#include <servers/bootstrap.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/host/session/introspect.h"

// Names of the session. A name is a file lock: byte 0 is held by whoever owns the name, byte 1 +
// port id by an owner that can be reached. The kernel drops both with the owner, so nothing that is
// read here can be stale. Any thread.

// Claims `name` (1 to 127 bytes) and publishes `portId`, whose socket is bound and listening.
//
// Result  0 with the descriptor that holds the claim, entered as a name file: the caller gives it
//         to HostReleaseName. BOOTSTRAP_NAME_IN_USE, BOOTSTRAP_NOT_PRIVILEGED,
//         BOOTSTRAP_NO_MEMORY, KERN_FAILURE.
kern_return_t HostClaimName(const char* name, uint64_t portId, int* claim);

// Gives a claim up and removes its file.
void HostReleaseName(const char* name, int claim);

// The port id that the owner of `name` published. BOOTSTRAP_UNKNOWN_SERVICE when nobody has, also
// for a name that nobody can own (empty, over 127 bytes). A
// thread that asks for one name twice running keeps its file open, one descriptor, until it asks
// for another or ends; the answer is that of now all the same.
kern_return_t HostFindName(const char* name, uint64_t* portId);

// The bootstrap status of a failed system call: BOOTSTRAP_NOT_PRIVILEGED, BOOTSTRAP_NO_MEMORY
// (descriptors, disk or memory), else KERN_FAILURE. Logs the reason, unless it is the one that was
// logged last.
kern_return_t HostRegistrationStatus(int error);

// A published name whose owner `isOwner` accepts by its pid, an event port's only when there is no
// other; "" when there is none.
std::string HostFindNameOwnedBy(const std::function<bool(pid_t)>& isOwner);

// All published names, for people. Unsorted.
std::vector<HostNameInfo> HostReadNames();

// The hidden name of a process's own event port: byte 1, then its serial number.
std::string HostEventPortName(const ProcessSerialNumber& psn);

// The file name of a port's socket in ports/: 16 lower-case hexadecimal digits and a NUL.
void HostPortFileName(uint64_t portId, char (&text)[17]);
