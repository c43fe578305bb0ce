#pragma once

#include <string>
#include <vector>

// The logs of opened applications. What such a program writes to its standard output and error is
// appended to one file for each application, $XDG_STATE_HOME/veltrane/log/IDENTIFIER.log. The
// openers write lines about starts and ends into it that begin with "-- ". Any thread.

// A file that has grown beyond this is cut: its last part becomes IDENTIFIER.log.1, which replaces
// the older one. The process that opens the log does that, so a running program may exceed the
// limit meanwhile.
inline constexpr long long kHostMostLogBytes = 1 << 20;

// Returns the path of the log of a program, by the identifier of its bundle or else by its file
// name. Bytes that may not stand in a file name are written as %XX. "" without a home folder.
std::string HostProgramLogPath(const std::string& program);

// Opens the log for appending, creates its folders (mode 0700) and the file (mode 0600) if they are
// missing, and cuts it if it is too long. Returns a file descriptor that the caller closes, or -1
// with the reason in `problem`. A log that is not a regular file of this user is refused.
int HostOpenProgramLog(const std::string& path, std::string* problem);

// Appends a line "-- TIME TEXT" in one write. A failure has no effect.
void HostNoteInProgramLog(int log, const std::string& text);

// Returns the last lines of a log, at most `count`, without their line feeds; of a log that was
// just cut, also of the older file. Bytes that are not printable are left as they are.
std::vector<std::string> HostLastLogLines(const std::string& path, size_t count);

// How a process ended, by its wait status: "exit status 3" or "signal 11 (Segmentation fault)".
std::string HostEndText(int waitStatus);
