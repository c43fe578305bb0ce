#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/host/introspect.h"
#include "tools/port_text.h"
#include "tools/verbs.h"

namespace {

using Row = std::vector<std::string>;

Row RowOf(const HostNameInfo& info) {
  return {EscapedBytes(info.name), info.ownerPid > 0 ? std::to_string(info.ownerPid) : "?",
          AgeText(info.ageSeconds), info.program.empty() ? "?" : EscapedBytes(info.program)};
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
  std::vector<Row> rows;
  for (const HostNameInfo& info : HostListNames()) {
    if (!info.hidden || line.Has("--all")) rows.push_back(RowOf(info));
  }
  if (rows.empty()) Say("no ports are published");
  // A heading for people; programs that read the list get the list alone.
  if (!rows.empty() && isatty(STDOUT_FILENO))
    rows.insert(rows.begin(), {"NAME", "PID", "AGE", "PROGRAM"});
  PrintRows(rows);
  return kExitOk;
}
