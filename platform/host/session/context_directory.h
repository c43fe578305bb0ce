#pragma once

#include <string>

// This room knows what all processes of a user share: the session directory and the port names in
// it.
//
// The directory that is one user's session: the names/ and ports/ of everybody who speaks. Opened
// and checked once, then reached only through its descriptors, so that nobody can put another in
// its place. Any thread.

struct HostContext {
  int directory = -1;  // descriptors, kept for the life of the process
  int names = -1;
  int ports = -1;
  unsigned uid = 0;  // the effective uid at first use
  std::string path;
  std::string source;  // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
};

// The session, or null when its directory cannot be used: a refusal is logged once for each
// distinct reason and tried again at the next call.
const HostContext* HostGetContext();

// As HostGetContext, without the log line; `problem` gets path, owner, mode and remedy.
const HostContext* HostTryContext(std::string* path, std::string* source, std::string* problem);
