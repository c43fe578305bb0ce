#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/ports/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/table.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

namespace {

JsonValue PortModel(const HostNameInfo& info) {
  const bool isOwnerKnown = info.ownerPid > 0;
  JsonValue port = JsonValue::Object();
  port.AddBytes("name", info.name);
  port.Add("pid", isOwnerKnown ? JsonValue::Integer(info.ownerPid) : JsonValue());
  port.Add("uid", isOwnerKnown ? JsonValue::Unsigned(info.ownerUid) : JsonValue());
  port.Add("ageSeconds", JsonValue::Real(std::round(info.ageSeconds * 1000) / 1000));
  if (info.program.empty()) {
    port.Add("program", JsonValue());
  } else {
    port.AddBytes("program", info.program);
  }
  const HostPortUse use = isOwnerKnown ? HostUseOfPort(info.ownerPid, info.portID) : HostPortUse();
  const auto add = [&port](const char* key, std::optional<size_t> count) {
    port.Add(key, count ? JsonValue::Unsigned(*count) : JsonValue());
  };
  add("connections", use.connections);
  add("lanes", use.lanes);
  port.Add("hidden", JsonValue::Bool(info.hidden));
  return port;
}

TableRow RowOf(const JsonValue& port) {
  return {TableCell(*port.Find("name")), TableCell(*port.Find("pid")),
          AgeText(port.Find("ageSeconds")->AsDouble()), TableCell(*port.Find("program"))};
}

}  // namespace

static int RunPorts(const CommandLine& line) {
  JsonValue::Array ports;
  for (const HostNameInfo& info : HostListNames()) {
    if (!info.hidden || line.Has("--all")) ports.push_back(PortModel(info));
  }
  if (ports.empty()) Say("no ports are published");
  if (line.Has("--json")) {
    for (const JsonValue& port : ports) PrintJson(port);
    return kExitOk;
  }
  std::vector<TableRow> rows;
  for (const JsonValue& port : ports) rows.push_back(RowOf(port));
  PrintTable({"NAME", "PID", "AGE", "PROGRAM"}, std::move(rows));
  return kExitOk;
}

Verb PortsVerb() {
  return {"ports",
          "[--all] [--json]",
          "Lists the port names that processes own.",
          "Prints one line for each port name: the name, and the process id, age and\n"
          "program of its owner. Bytes of a name that are not printable ASCII are shown\n"
          "as \\xNN.\n"
          "\n"
          "Examples: vltctl ports\n"
          "          vltctl ports --all --json\n"
          "\n"
          "JSON: one object for each port name with name, pid, uid, ageSeconds, program,\n"
          "connections, lanes (how many of the connections use shared memory) and hidden.\n"
          "A member is null if its value is unknown. If a name or a program is not UTF-8,\n"
          "nameHex or programHex has its bytes.\n",
          {{"--all", nullptr, "also list the hidden names of event ports"}, kJsonOption},
          0,
          0,
          RunPorts};
}
