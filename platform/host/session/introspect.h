#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// Information about the session that no platform call provides: its port names with their owners,
// and the path of its directory. For tools, benchmarks and tests only. Any thread.

// One name that a live process owns.
struct HostNameInfo {
  std::string name;    // raw bytes
  pid_t ownerPid = 0;  // 0 if the owner line could not be read
  uid_t ownerUid = 0;
  std::string program;  // path of the owner's program from /proc, or ""
  double ageSeconds = 0;
  bool hidden = false;  // a process's own event port, claimed by its event loop
  uint64_t portID = 0;
};

// Returns the names that are published now, sorted; none if the session directory cannot be used.
std::vector<HostNameInfo> HostListNames();

// The session directory and the source of its path; if it cannot be used, the reason and the
// remedy.
struct HostSessionDirectoryInfo {
  std::string path;
  std::string source;  // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
  bool usable = false;
  std::string problem;  // path, owner, mode and remedy in one line; "" when usable
};
HostSessionDirectoryInfo HostDescribeSessionDirectory();

// The other directories that may be the session directory of this user and exist: a process gets
// one of them if its environment is different, as after su or sudo. Only those that the user owns.
std::vector<HostSessionDirectoryInfo> HostOtherSessionDirectories();

// The number of connections that clients have to the owner of a port name, or that wait to be
// accepted; -1 if no process owns the name or the kernel does not report it.
int HostCountConnections(const std::string& name);
