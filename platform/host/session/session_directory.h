#pragma once

#include <string>

// This room knows what all processes of a user share: the session directory and the port names in
// it.
//
// The session directory with its folders names/ and ports/. It is opened and checked once, and from
// then on used through its file descriptors only, so that nobody can put another one in its place.
// Any thread.

struct HostSessionDirectory {
  int directory = -1;  // these are file descriptors, open as long as the process lives
  int names = -1;
  int ports = -1;
  unsigned uid = 0;  // the effective uid at first use
  std::string path;
  std::string source;  // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
};

// The session, or null when its directory cannot be used: a refusal is logged once for each
// distinct reason and tried again at the next call.
const HostSessionDirectory* HostGetSessionDirectory();

// Does the same as HostGetSessionDirectory without the log line. Stores path, owner, mode and
// remedy in `problem`.
const HostSessionDirectory* HostTrySessionDirectory(std::string* path, std::string* source,
                                                    std::string* problem);
