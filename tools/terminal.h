#pragma once

#include <cstddef>
#include <string>

// What standard output can show, if it is a terminal. One thread.

// Whether text may be coloured: standard output is a terminal that is not "dumb", and NO_COLOR is
// unset or empty.
bool MayUseColours();

// The width of the terminal in columns; 0 if standard output is not a terminal or its width is
// unknown.
size_t TerminalColumns();

enum class Paint { kBold, kGreen, kYellow, kRed };

// Returns the text between the terminal's control sequences for `paint`, or unchanged if text may
// not be coloured.
std::string Painted(Paint paint, const std::string& text);

// The columns that the text takes: its characters without control sequences. Wide characters count
// as one column.
size_t ColumnsOf(const std::string& text);
