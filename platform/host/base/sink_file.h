#pragma once

#include <string_view>

// Files that receive what would otherwise go to the user, the log or a debugger, so that tests can
// read it. Environment variables name them. Programs with raised privileges ignore the variables.

// Appends `line` and a newline to the file that `variable` names. Does so in one write, so that
// lines of several processes never mix; newlines in `line` become spaces. Returns false if the
// variable is not set or the file cannot be written. Throws std::bad_alloc. Any thread.
bool HostAppendToSink(const char* variable, std::string_view line);
