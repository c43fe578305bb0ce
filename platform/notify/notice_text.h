#pragma once

#include <cstddef>
#include <string>

// Texts on their way to the desktop. Pure functions.

// Mac Roman bytes as UTF-8. Returns become newlines, other control characters blanks.
std::string NoticeText(const unsigned char* bytes, size_t length);

// The same look where the service reads markup.
std::string EscapedNoticeText(const std::string& text);

// A program's name, or a general word when its bytes are no text.
std::string NoticeAppName(const char* name);
