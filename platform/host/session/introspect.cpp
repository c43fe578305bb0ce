#include "platform/host/session/introspect.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

std::vector<HostNameInfo> HostListNames() {
  std::vector<HostNameInfo> names = HostReadNames();
  std::sort(names.begin(), names.end(),
            [](const HostNameInfo& a, const HostNameInfo& b) { return a.name < b.name; });
  return names;
}

HostSessionDirectoryInfo HostDescribeSessionDirectory() {
  HostSessionDirectoryInfo info;
  info.usable = HostTrySessionDirectory(&info.path, &info.source, &info.problem) != nullptr;
  return info;
}

std::vector<HostSessionDirectoryInfo> HostOtherSessionDirectories() {
  const HostSessionDirectoryInfo current = HostDescribeSessionDirectory();
  const std::string number = std::to_string(geteuid());
  const HostSessionDirectoryInfo candidates[] = {
      {"/run/user/" + number + "/veltrane", "/run/user", false, ""},
      {"/tmp/veltrane-" + number, "/tmp", false, ""}};
  std::vector<HostSessionDirectoryInfo> others;
  struct stat own, info;
  const bool hasOwn = stat(current.path.c_str(), &own) == 0;
  for (const HostSessionDirectoryInfo& candidate : candidates) {
    if (lstat(candidate.path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) continue;
    const bool isCurrent = hasOwn && own.st_dev == info.st_dev && own.st_ino == info.st_ino;
    if (info.st_uid == geteuid() && !isCurrent) others.push_back(candidate);
  }
  return others;
}

// Sockets that a listening socket has accepted have its path in the kernel's list.
int HostCountConnections(const std::string& name) {
  constexpr const char* kConnected = "03";
  uint64_t portId = 0;
  if (HostFindName(name.c_str(), &portId) != 0) return -1;
  char file[17];
  HostPortFileName(portId, file);
  const std::string end = std::string("/ports/") + file;
  std::ifstream list("/proc/net/unix");
  if (!list) return -1;
  int count = 0;
  for (std::string line; std::getline(list, line);) {
    if (!line.ends_with(end)) continue;
    std::istringstream columns(line);
    std::string column[6];  // number, references, protocol, flags, type, state
    for (std::string& each : column) columns >> each;
    count += column[5] == kConnected ? 1 : 0;
  }
  return count;
}
