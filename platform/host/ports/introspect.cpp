#include "platform/host/ports/introspect.h"

#include <fstream>
#include <string>

#include "platform/host/base/guard.h"
#include "platform/host/ports/intake.h"
#include "platform/host/ports/lane.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/session/name_registry.h"

namespace {

// Returns how many lines of a file `isCounted` accepts; nothing if the file cannot be read.
template <class Condition>
std::optional<size_t> CountLines(const std::string& path, Condition isCounted) {
  std::ifstream file(path);
  if (!file) return std::nullopt;
  size_t count = 0;
  for (std::string line; std::getline(file, line);) count += isCounted(line) ? 1 : 0;
  return count;
}

}  // namespace

HostPortCounts HostCountPorts() {
  const HostTableCounts table = HostCountTable();
  HostPortCounts counts;
  counts.portNames = table.names;
  counts.receivers = table.receivers;
  counts.connections = table.connections;
  counts.lanes = table.lanes;
  counts.queuedBytes = HostIntake::OfThisProcess().QueuedBytes();
  counts.partialBytes = HostIntake::OfThisProcess().PartialBytes();
  return counts;
}

HostPortUse HostUseOfPort(pid_t owner, uint64_t portID) {
  return HostGuard(HostPortUse(), [&] {
    char file[17];
    HostPortFileName(portID, file);
    const std::string socket = std::string("/") + file;
    const std::string lane = HostLaneFileName(portID);
    HostPortUse use;
    // An accepted connection has the path of the listening socket, which itself has the flag
    // 00010000.
    use.connections = CountLines("/proc/net/unix", [&socket](const std::string& line) {
      return line.ends_with(socket) && line.find(" 00010000 ") == std::string::npos;
    });
    use.lanes =
        CountLines("/proc/" + std::to_string(owner) + "/maps", [&lane](const std::string& line) {
          return line.find("/memfd:" + lane) != std::string::npos;
        });
    return use;
  });
}
