#include "platform/host/session/port_address.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "platform/host/session/context_directory.h"
#include "platform/host/session/name_registry.h"

bool HostPortAddress(uint64_t portID, sockaddr_un* address, socklen_t* size) {
  const HostContext* context = HostGetContext();
  if (context == nullptr) return false;
  char file[17];
  HostPortFileName(portID, file);
  *address = {};
  address->sun_family = AF_UNIX;
  snprintf(address->sun_path, sizeof address->sun_path, "/proc/self/fd/%d/%s", context->ports,
           file);
  *size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address->sun_path) + 1);
  return true;
}
