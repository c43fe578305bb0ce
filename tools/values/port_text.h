#pragma once

#include <string>
#include <string_view>

// Text for people. Pure functions, any thread.

// Bytes as printable ASCII without spaces: a backslash and all other bytes become \xNN.
std::string EscapedBytes(std::string_view bytes);

// Text with its control characters escaped, so that it stays on one line.
std::string OneLine(const std::string& text);

// Two lower-case digits for each byte.
std::string HexText(std::string_view bytes);

// The message about a text that cannot be a port's name.
std::string NotAPortName(const std::string& text);

// Seconds in the largest unit that gives at least 1: "0s", "59s", "12m", "3h", "20d".
std::string AgeText(double seconds);
