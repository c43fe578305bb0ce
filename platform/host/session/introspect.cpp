#include "platform/host/session/introspect.h"

#include <algorithm>

#include "platform/host/session/context_directory.h"
#include "platform/host/session/name_registry.h"

std::vector<HostNameInfo> HostListNames() {
  std::vector<HostNameInfo> names = HostReadNames();
  std::sort(names.begin(), names.end(),
            [](const HostNameInfo& a, const HostNameInfo& b) { return a.name < b.name; });
  return names;
}

HostContextInfo HostDescribeContext() {
  HostContextInfo info;
  info.usable = HostTryContext(&info.path, &info.source, &info.problem) != nullptr;
  return info;
}
