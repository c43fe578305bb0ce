#include "platform/host/introspect.h"

#include <algorithm>

#include "platform/host/context_directory.h"
#include "platform/host/name_registry.h"
#include "platform/host/port_table.h"

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

HostPortCounts HostCountPorts() {
  const HostTableCounts table = HostCountTable();
  HostPortCounts counts;
  counts.portNames = table.names;
  counts.receivers = table.receivers;
  counts.connections = table.connections;
  counts.queuedBytes = table.queuedBytes;
  counts.partialBytes = table.partialBytes;
  return counts;
}
