#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>

struct FSRef;

// Opening an application and waiting until it can be reached. Any thread; the caller waits.

// How opening an application went, for people.
enum class HostOpening {
  kRunning,   // it ran already
  kUnderWay,  // somebody else was opening it
  kClaimed,   // started, and it claimed a port
  kEnded,     // started, and it has ended without one
  kSilent,    // started; it has done neither within the time
};
struct HostOpeningInfo {
  std::string program;  // absolute path, links resolved
  HostOpening outcome = HostOpening::kSilent;
  pid_t pid = 0;     // of the program that was started, or is known to run; 0 when it is not known
  std::string port;  // a port of its, "" when none was seen
};

// LSOpenFSRef, and what it saw. `info` is filled as far as opening got.
OSStatus HostOpenApplication(const FSRef* application, HostOpeningInfo* info);
