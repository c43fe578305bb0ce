#include "platform/host/session/port_address.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

bool HostPortAddress(uint64_t portID, sockaddr_un* address, socklen_t* size) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return false;
  char file[17];
  HostPortFileName(portID, file);
  *address = {};
  address->sun_family = AF_UNIX;
  snprintf(address->sun_path, sizeof address->sun_path, "/proc/self/fd/%d/%s", session->ports,
           file);
  *size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address->sun_path) + 1);
  return true;
}
