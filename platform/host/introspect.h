#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>
#include <vector>

struct AEDesc;

// What people want to see and no documented interface tells. For tools, benchmarks and tests only.
// Any thread.

// One name that a live process owns.
struct HostNameInfo {
  std::string name;     // raw bytes
  pid_t ownerPid = 0;   // 0 when the owner's record could not be read
  uid_t ownerUid = 0;
  std::string program;  // the owner's executable path as /proc tells, "" when it does not
  double ageSeconds = 0;
  bool hidden = false;  // a process's own event port, claimed by its event loop
};

// The names that are published now, sorted. Empty when the session directory cannot be used.
std::vector<HostNameInfo> HostListNames();

// The session directory and where its path came from; when it cannot be used, why and what to do.
struct HostContextInfo {
  std::string path;
  std::string source;   // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
  bool usable = false;
  std::string problem;  // path, owner, mode and remedy in one line; "" when usable
};
HostContextInfo HostDescribeContext();

// Host resources of this process that must not grow with the number of messages.
struct HostPortCounts {
  size_t portNames = 0;    // entries of the port table
  size_t receivers = 0;    // receive rights with a socket
  size_t connections = 0;  // of all receive rights
  size_t queuedBytes = 0;  // replies waiting for their readers
  size_t partialBytes = 0;  // partly received frames
};
HostPortCounts HostCountPorts();

// The keywords of all attributes that an event has, those with a meaning of their own first. Empty
// for what is no event. (AEGetAttributeDesc reads one, but nothing documented lists them.)
std::vector<FourCharCode> HostAttributeKeys(const AEDesc* event);
