#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/values/json_value.h"

// Prints tables for people to standard output: a line for each row, columns as wide as their widest
// cell and two spaces between them. All rows have the same number of cells. One thread.

using TableRow = std::vector<std::string>;

void PrintTable(const std::vector<TableRow>& rows);

// On a terminal, prints the heading, too, if there are rows, and shortens paths in the last column
// to the terminal's width.
void PrintTable(const TableRow& heading, std::vector<TableRow> rows);

// Replaces the middle of a path by "..." if it is longer than `columns`. Pure function.
std::string ShortenedPath(const std::string& path, size_t columns);

// A scalar without spaces; "?" for null.
std::string TableCell(const JsonValue& value);
