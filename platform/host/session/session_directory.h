#pragma once

#include <string>

// This room has the things that all processes of a session share: the session directory and the
// port names in it.
//
// The session directory with its folders names/ and ports/. It is opened and checked once, and from
// then on used through its file descriptors only, so that it cannot be replaced by another one. Any
// thread.

struct HostSessionDirectory {
  int directory = -1;  // these are file descriptors, open as long as the process lives
  int names = -1;
  int ports = -1;
  unsigned uid = 0;  // the effective uid at first use
  std::string path;
  std::string source;  // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
};

// Returns the session directory, or null if it cannot be used. A refusal is logged once for each
// distinct reason, and the next call tries again.
const HostSessionDirectory* HostGetSessionDirectory();

// Does the same without the log line. Stores the directory's path and where it comes from, and, if
// it cannot be used, path, owner, mode and remedy in `problem`.
const HostSessionDirectory* HostTrySessionDirectory(std::string* path, std::string* source,
                                                    std::string* problem);
