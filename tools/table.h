#pragma once

#include <string>
#include <vector>

#include "tools/values/json_value.h"

// Prints tables for people to standard output: a line for each row, columns as wide as their widest
// cell and two spaces between them. All rows have the same number of cells. One thread.

using TableRow = std::vector<std::string>;

void PrintTable(const std::vector<TableRow>& rows);

// Prints the heading, too, if standard output is a terminal and there are rows.
void PrintTable(const TableRow& heading, std::vector<TableRow> rows);

// A scalar without spaces; "?" for null.
std::string TableCell(const JsonValue& value);
