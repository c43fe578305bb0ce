#include "tools/table.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>

#include "tools/output.h"
#include "tools/terminal.h"
#include "tools/values/port_text.h"

namespace {

constexpr size_t kGap = 2;             // columns between two cells
constexpr size_t kNarrowestPath = 12;  // a narrower column would not tell paths apart
constexpr char kCut[] = "...";

std::vector<size_t> WidthsOf(const std::vector<TableRow>& rows) {
  std::vector<size_t> widths;
  for (const TableRow& row : rows) {
    assert(row.size() == rows.front().size());
    widths.resize(row.size());
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], ColumnsOf(row[i]));
  }
  return widths;
}

// Shortens the paths in the last column to what the terminal has left for it.
void FitPaths(std::vector<TableRow>& rows, size_t columns) {
  if (rows.empty() || columns == 0) return;
  const std::vector<size_t> widths = WidthsOf(rows);
  size_t taken = 0;
  for (size_t i = 0; i + 1 < widths.size(); ++i) taken += widths[i] + kGap;
  const size_t room = columns > taken + kNarrowestPath ? columns - taken : kNarrowestPath;
  for (TableRow& row : rows) {
    if (row.back().starts_with('/')) row.back() = ShortenedPath(row.back(), room);
  }
}

}  // namespace

std::string ShortenedPath(const std::string& path, size_t columns) {
  constexpr size_t kMark = sizeof kCut - 1;
  if (path.size() <= columns || columns <= kMark) return path;
  // The end says more than the beginning. It is whole folders, if one begins within its half.
  size_t tail = path.size() - (columns - kMark) * 2 / 3;
  const size_t slash = path.find('/', tail);
  if (slash != std::string::npos && slash < path.size() - 1) tail = slash;
  const size_t head = columns - kMark - (path.size() - tail);
  return path.substr(0, head) + kCut + path.substr(tail);
}

void PrintTable(const std::vector<TableRow>& rows) {
  const std::vector<size_t> widths = WidthsOf(rows);
  for (const TableRow& row : rows) {
    std::string line;
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - ColumnsOf(row[i]) + kGap, ' ');
    }
    Print(line + row.back() + "\n");
  }
}

void PrintTable(const TableRow& heading, std::vector<TableRow> rows) {
  if (!rows.empty() && isatty(STDOUT_FILENO) == 1) {
    TableRow painted;
    for (const std::string& cell : heading) painted.push_back(Painted(Paint::kBold, cell));
    rows.insert(rows.begin(), painted);
    FitPaths(rows, TerminalColumns());
  }
  PrintTable(rows);
}

std::string TableCell(const JsonValue& value) {
  return value.IsNull() ? "?" : EscapedBytes(value.Plain());
}
