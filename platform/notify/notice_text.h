#pragma once

#include <cstddef>
#include <string>

// Texts for the desktop. Pure functions; any thread.

// Converts Mac Roman bytes to UTF-8. Returns become newlines, other control characters spaces.
std::string NoticeText(const unsigned char* bytes, size_t length);

// Escapes the text for a service that reads markup, so that it shows the same characters.
std::string EscapedNoticeText(const std::string& text);

// Returns the program's name, or "Program" if its bytes are not UTF-8.
std::string NoticeAppName(const char* name);
