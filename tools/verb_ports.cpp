#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/host/introspect.h"
#include "tools/port_text.h"
#include "tools/verbs.h"

namespace {

using Row = std::vector<std::string>;

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
  port.Add("hidden", JsonValue::Bool(info.hidden));
  return port;
}

// What has no value shows as a question mark.
std::string Cell(const JsonValue& value) {
  return value.IsNull() ? "?" : EscapedBytes(value.Plain());
}

Row RowOf(const JsonValue& port) {
  return {Cell(*port.Find("name")), Cell(*port.Find("pid")),
          AgeText(port.Find("ageSeconds")->AsDouble()), Cell(*port.Find("program"))};
}

void PrintRows(const std::vector<Row>& rows) {
  std::vector<size_t> widths;
  for (const Row& row : rows) {
    widths.resize(row.size());
    for (size_t i = 0; i + 1 < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const Row& row : rows) {
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      std::printf("%-*s  ", static_cast<int>(widths[i]), row[i].c_str());
    }
    std::printf("%s\n", row.back().c_str());
  }
}

}  // namespace

int RunPorts(const CommandLine& line) {
  JsonValue::Array ports;
  for (const HostNameInfo& info : HostListNames()) {
    if (!info.hidden || line.Has("--all")) ports.push_back(PortModel(info));
  }
  if (ports.empty()) Say("no ports are published");
  if (line.Has("--json")) {
    for (const JsonValue& port : ports) PrintJson(port);
    return kExitOk;
  }
  std::vector<Row> rows;
  // A heading for people; programs that read the list get the list alone.
  if (!ports.empty() && isatty(STDOUT_FILENO)) rows.push_back({"NAME", "PID", "AGE", "PROGRAM"});
  for (const JsonValue& port : ports) rows.push_back(RowOf(port));
  PrintRows(rows);
  return kExitOk;
}
