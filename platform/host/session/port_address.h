#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>

// The socket address of a port: a path through the session directory's descriptor, so it is short
// whatever the directory's own path is. False when the session cannot be used. Any thread.
bool HostPortAddress(uint64_t portID, sockaddr_un* address, socklen_t* size);
