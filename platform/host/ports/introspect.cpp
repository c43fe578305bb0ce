#include "platform/host/ports/introspect.h"

#include "platform/host/ports/intake.h"
#include "platform/host/ports/port_table.h"

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
