#pragma once

#include <string>
#include <vector>

#include "tools/values/json_value.h"

// A table for people: a line for each row, columns as wide as their widest cell, two blanks between
// them. All rows have the same number of cells. To standard output, one thread.

using TableRow = std::vector<std::string>;

void PrintTable(const std::vector<TableRow>& rows);

// The same under a heading when people are looking; programs that read it get the rows alone.
void PrintTable(const TableRow& heading, std::vector<TableRow> rows);

// A scalar as one word; a question mark for what has no value.
std::string TableCell(const JsonValue& value);
