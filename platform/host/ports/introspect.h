#pragma once

#include <cstddef>

// What this process holds for its ports, for tools, benchmarks and tests only. Any thread.

// Host resources of this process that must not grow with the number of messages.
struct HostPortCounts {
  size_t portNames = 0;     // entries of the port table
  size_t receivers = 0;     // receive rights with a socket
  size_t connections = 0;   // of all receive rights
  size_t lanes = 0;         // of these connections
  size_t queuedBytes = 0;   // replies waiting for their readers
  size_t partialBytes = 0;  // partly received frames
};
HostPortCounts HostCountPorts();
