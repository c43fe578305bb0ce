#pragma once

#include <string>
#include <vector>

// The logs of opened applications. What such a program writes to its standard output and error is
// appended to one file for each application, $XDG_STATE_HOME/veltrane/log/IDENTIFIER.log. The
// openers write lines about starts and ends into it that begin with "-- ". Any thread.

// A file that has grown beyond this is cut: its last part becomes IDENTIFIER.log.1, which replaces
// the older one. The program writes to the file itself, since a process between the two would have
// to run as long as the program, and its end would end the program's output. So logs are cut
// whenever an application is opened and whenever a tool looks at one; between two such moments the
// log of a running program may be longer.
inline constexpr long long kHostMostLogBytes = 1 << 20;

// Returns the path of the log of a program, by the identifier of its bundle or else by its file
// name. Bytes that may not stand in a file name are written as %XX. "" without a home folder.
std::string HostProgramLogPath(const std::string& program);

// Opens the log for appending, creates its folders (mode 0700) and the file (mode 0600) if they are
// missing, and cuts it and all other logs that are too long. Returns a file descriptor that the
// caller closes, or -1 with the reason in `problem`. A log that is not a regular file of this user
// is refused.
int HostOpenProgramLog(const std::string& path, std::string* problem);

// Cuts all logs that are too long, also those of running programs, which go on writing to the same
// files. A log that cannot be opened, or that another process is cutting, is left alone.
void HostCutProgramLogs();

// Appends a line "-- TIME TEXT" in one write. A failure has no effect.
void HostNoteInProgramLog(int log, const std::string& text);

// Returns the last lines of a log, at most `count`, without their line feeds; of a log that was
// just cut, also of the older file. Bytes that are not printable are left as they are.
std::vector<std::string> HostLastLogLines(const std::string& path, size_t count);

// How a process ended, by its wait status: "exit status 3" or "signal 11 (Segmentation fault)".
std::string HostEndText(int waitStatus);
