#include "platform/host/loop/service_manager.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/host/base/descriptors.h"

namespace {

// The socket is a path, or "@" and a name that is not in the file system.
bool AddressOfManager(sockaddr_un* address, socklen_t* size) {
  const char* variable = secure_getenv("NOTIFY_SOCKET");
  const std::string_view name = variable != nullptr ? variable : "";
  if (name.size() < 2 || (name[0] != '/' && name[0] != '@')) return false;
  if (name.size() >= sizeof address->sun_path) return false;
  *address = {};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, name.data(), name.size());
  if (name[0] == '@') address->sun_path[0] = 0;
  *size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  return true;
}

void Tell(std::string_view state) {
  sockaddr_un address;
  socklen_t size = 0;
  if (!AddressOfManager(&address, &size)) return;
  const int manager = HostAboveStandard(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (manager < 0) return;
  (void)!sendto(manager, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&address), size);
  close(manager);
}

}  // namespace

HostServiceState::HostServiceState() { Tell("READY=1"); }

HostServiceState::~HostServiceState() { Tell("STOPPING=1"); }
