#include "tools/table.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>

#include "tools/output.h"
#include "tools/values/port_text.h"

void PrintTable(const std::vector<TableRow>& rows) {
  std::vector<size_t> widths;
  for (const TableRow& row : rows) {
    assert(row.size() == rows.front().size());
    widths.resize(row.size());
    for (size_t i = 0; i + 1 < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const TableRow& row : rows) {
    std::string line;
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    Print(line + row.back() + "\n");
  }
}

void PrintTable(const TableRow& heading, std::vector<TableRow> rows) {
  if (!rows.empty() && isatty(STDOUT_FILENO)) rows.insert(rows.begin(), heading);
  PrintTable(rows);
}

std::string TableCell(const JsonValue& value) {
  return value.IsNull() ? "?" : EscapedBytes(value.Plain());
}
