#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <optional>
#include <string>

struct FSRef;

// Opening an application and waiting until it can be reached. Any thread; the calling thread
// blocks.

// The outcome of opening an application.
enum class HostOpening {
  kRunning,   // it ran already
  kUnderWay,  // another process was opening it
  kClaimed,   // started, and it claimed a port
  kEnded,     // started, and it ended without claiming one
  kSilent,    // started, and it did neither in time
};
struct HostOpeningInfo {
  std::string program;  // absolute path, links resolved
  HostOpening outcome = HostOpening::kSilent;
  pid_t pid = 0;         // of the process that was started or runs; 0 if it is not known
  std::string port;      // the name of one of its ports, or ""
  std::string log = {};  // the file with its output, or "" if it has none
  std::optional<int> waitStatus = {};  // of kEnded, as waitpid gives it, if it is known
};

// Does the work of LSOpenFSRef and reports what it saw. `info` is filled as far as opening got.
//
// A program that ended within 2 s of its start five times in a row is started again only after a
// pause of 1 s, and of twice as long after each further early end, up to 10 s. Until then the
// result is kLSServerCommunicationErr; the log reports once when the pause ends.
//
// The program's standard output and error go to its log (program_log.h), or to /dev/null with a
// line in the system log if that cannot be opened. How it ended is written there and into the
// system log if it ends before it can be reached.
OSStatus HostOpenApplication(const FSRef* application, HostOpeningInfo* info);

// From now on this process starts programs without such pauses. For tools that a person runs.
void HostOpenDespitePauses();
