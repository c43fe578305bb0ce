#pragma once

#include <string>
#include <string_view>

// Bytes as printable ASCII without blanks: backslash and everything else as \xNN.
std::string EscapedBytes(std::string_view bytes);

// Text with its control characters escaped, so that it never takes more than its line.
std::string OneLine(const std::string& text);

// Two lower-case digits for each byte.
std::string HexText(std::string_view bytes);

// The message about a text that cannot be a port's name.
std::string NotAPortName(const std::string& text);

// Seconds as the largest unit that makes at least 1: "0s", "59s", "12m", "3h", "20d".
std::string AgeText(double seconds);
