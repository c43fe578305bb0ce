#include "platform/host/services/introspect.h"

#include <Security/Security.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr UInt32 kNoAuditSession = 0xFFFFFFFF;
// Stands for user 0, whose number would mean "no session". No user and no audit session has it.
constexpr SecuritySessionId kRootUserSession = 0x80000000;

bool ParseNumber(const char* text, int base, UInt32* number) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, base);
  if (errno != 0 || (*end != 0 && *end != '\n') || value > UINT32_MAX) return false;
  *number = static_cast<UInt32>(value);
  return true;
}

bool IsRealId(SecuritySessionId id) {
  return id != noSecuritySession && id != callerSecuritySession;
}

// The number that the login gave all its processes; false outside every login.
bool AuditSession(SecuritySessionId* id) {
  const int fd = open("/proc/self/sessionid", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[16];
  const ssize_t size = read(fd, text, sizeof text - 1);
  close(fd);
  if (size <= 0) return false;
  text[size] = 0;
  return ParseNumber(text, 10, id) && *id != kNoAuditSession && IsRealId(*id);
}

bool IsSet(const char* variable) {
  const char* value = getenv(variable);
  return value != nullptr && value[0] != 0;
}

// Whether the caller belongs to a login session; fills in the id.
bool FindId(HostSession* session) {
  session->idSource = "VLTHOST_SESSION_ID";
  if (ParseNumber(secure_getenv("VLTHOST_SESSION_ID"), 0, &session->id) && IsRealId(session->id)) {
    return true;
  }
  session->idSource = "audit session";
  if (AuditSession(&session->id)) return true;
  // The real user: the effective one may be changed for the length of a block.
  const uid_t uid = getuid();
  session->idSource = "user id";
  session->id = uid != 0 ? static_cast<SecuritySessionId>(uid) : kRootUserSession;
  return false;
}

}  // namespace

HostSession HostDescribeOwnSession() {
  HostSession session;
  const bool isLogin = FindId(&session);
  if (ParseNumber(secure_getenv("VLTHOST_SESSION_BITS"), 0, &session.attributes)) {
    session.rootSource = session.graphicSource = "VLTHOST_SESSION_BITS";
    return session;
  }
  const bool isRoot = !isLogin && getuid() == 0;
  session.rootSource = isRoot    ? "user 0 outside every login session"
                       : isLogin ? "in a login session"
                                 : "not user 0";
  session.graphicSource = IsSet("DISPLAY")           ? "DISPLAY"
                          : IsSet("WAYLAND_DISPLAY") ? "WAYLAND_DISPLAY"
                                                     : "neither DISPLAY nor WAYLAND_DISPLAY";
  session.attributes = isRoot ? SessionAttributeBits{sessionIsRoot} : 0;
  if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) session.attributes |= sessionHasGraphicAccess;
  return session;
}
