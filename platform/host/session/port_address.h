#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>

// Stores the socket address of a port: a path through the session directory's file descriptor,
// which is short even if the directory's own path is long. Returns false if the session directory
// cannot be used. Any thread.
bool HostPortAddress(uint64_t portID, sockaddr_un* address, socklen_t* size);
