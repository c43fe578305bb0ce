#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>

// Counts of what this process and others use for their ports. For tools, benchmarks and tests only.
// Any thread.

// Resources of this process that must not grow with the number of messages.
struct HostPortCounts {
  size_t portNames = 0;     // entries of the port table
  size_t receivers = 0;     // receive rights with a socket
  size_t connections = 0;   // of all receive rights
  size_t lanes = 0;         // in use, of these connections
  size_t queuedBytes = 0;   // replies waiting for their readers
  size_t partialBytes = 0;  // partly received frames
};
HostPortCounts HostCountPorts();

// The kernel's information about another process's port; a member is empty if the kernel does not
// report it.
struct HostPortUse {
  std::optional<size_t> connections;  // accepted, or waiting to be
  std::optional<size_t> lanes;
};
HostPortUse HostUseOfPort(pid_t owner, uint64_t portID);
