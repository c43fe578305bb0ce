#include "platform/host/ports/endpoint.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cassert>
#include <cerrno>

#include <algorithm>
#include <utility>

#include "platform/host/base/descriptors.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/port_address.h"
#include "platform/host/session/session_directory.h"

namespace {

constexpr int kBacklog = 4096;

// 62 random bits, so that 1 + id is a file offset; never 0.
uint64_t RandomPortID() {
  uint64_t number = 0;
  do {
    if (getrandom(&number, sizeof number, 0) != sizeof number) number = 0;
    number &= (uint64_t{1} << 62) - 1;
  } while (number == 0);
  return number;
}

bool ReadPeer(int fd, HostPeer* peer) {
  ucred credentials = {};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  peer->pid = credentials.pid;
  peer->uid = credentials.uid;
  return true;
}

// The session's user and root may connect. A later seteuid does not change the session's user.
bool MayConnect(const HostPeer& peer) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  return peer.uid == 0 || (session != nullptr && peer.uid == session->uid);
}

bool IsReadable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

}  // namespace

HostEndpoint::HostEndpoint() : portID(RandomPortID()) {}

kern_return_t HostEndpoint::OpenSocket() {
  if (listener >= 0) return 0;
  sockaddr_un address;
  socklen_t size = 0;
  if (!HostPortAddress(portID, &address, &size)) return KERN_FAILURE;
  int fd = -1;
  {
    HostDescriptorOpening opening;
    fd = opening.Enter(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0),
                       HostDescriptorKind::kListener);
  }
  if (fd < 0) return HostRegistrationStatus(errno);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, kBacklog) != 0) {
    const int error = errno;
    HostCloseDescriptor(fd);
    return HostRegistrationStatus(error);
  }
  listener = fd;
  return 0;
}

void HostEndpoint::CloseSocket() {
  if (listener < 0) return;
  HostCloseDescriptor(listener);
  listener = -1;
  const HostSessionDirectory* session = HostGetSessionDirectory();
  char file[17];
  HostPortFileName(portID, file);
  if (session != nullptr) unlinkat(session->ports, file, 0);
}

kern_return_t HostEndpoint::Register(const char* service) {
  // Room for the entry comes first: a name that was claimed must not be lost by an exception.
  Claim claim = {service, -1};
  claims.reserve(claims.size() + 1);
  kern_return_t err = OpenSocket();
  if (err == 0) err = HostClaimName(service, portID, &claim.descriptor);
  if (err == 0) claims.push_back(std::move(claim));
  if (err != 0 && claims.empty()) CloseSocket();
  return err;
}

bool HostEndpoint::IsRegisteredAs(const char* service) const {
  return std::any_of(claims.begin(), claims.end(),
                     [service](const Claim& claim) { return claim.service == service; });
}

bool HostEndpoint::Unregister(const char* service) {
  for (auto claim = claims.begin(); claim != claims.end(); ++claim) {
    if (claim->service != service) continue;
    HostReleaseName(service, claim->descriptor);
    claims.erase(claim);
    return true;
  }
  return false;
}

HostEndpoint::Outcome HostEndpoint::Accept(int* fd, HostPeer* peer) {
  assert(listener >= 0);
  int accepted = -1;
  {
    HostDescriptorOpening opening;
    accepted = opening.Enter(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC),
                             HostDescriptorKind::kConnection);
  }
  if (accepted < 0) {
    const int error = errno;
    if (error == EAGAIN) return Outcome::kNobody;
    if (error == EINTR || error == ECONNABORTED) return Outcome::kAgain;
    if (error != EMFILE && error != ENFILE) return Outcome::kFailure;
    // The kernel reports the shortage also when no peer waits to be accepted.
    return IsReadable(listener) ? Outcome::kShortage : Outcome::kNobody;
  }
  if (!ReadPeer(accepted, peer) || !MayConnect(*peer)) {
    HostCloseDescriptor(accepted);
    return Outcome::kRefused;
  }
  *fd = accepted;
  return Outcome::kAccepted;
}

void HostEndpoint::Close() {
  for (const Claim& claim : claims) HostReleaseName(claim.service.c_str(), claim.descriptor);
  claims.clear();
  CloseSocket();
}
