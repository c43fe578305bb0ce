#pragma once

#include <string_view>

// Files that take what would otherwise go to the user, the log or a debugger, so that tests can
// read it. Named by environment variables; ignored in programs that run with raised privileges.

// Appends `line` and a newline to the file that `variable` names, in one write, so lines of several
// processes never mix; newlines inside become blanks. False when the variable is not set or the
// file cannot be written. Any thread.
bool HostAppendToSink(const char* variable, std::string_view line);
