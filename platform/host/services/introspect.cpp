#include "platform/host/services/introspect.h"

#include <Security/Security.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "platform/host/base/open_file.h"

namespace {

constexpr UInt32 kNoAuditSession = 0xFFFFFFFF;
// The session id of user 0, because 0 would mean "no session". It is not the number of any user or
// audit session.
constexpr SecuritySessionId kRootUserSession = 0x80000000;

// Reads a decimal number, or a hexadecimal one after 0x.
bool ParseNumber(const char* text, UInt32* number) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  const int base = text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 16 : 10;
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

// The audit session's number and this bit, stored when /proc could first be read; kNoAuditSession
// outside every login. The number does not change during the process's life, but later reads may
// fail for lack of file descriptors, so the first result is kept.
constexpr uint64_t kIsRead = uint64_t{1} << 32;
constinit std::atomic<uint64_t> sAuditSession{0};

// Returns 0 if the file cannot be read now. A system without the file has no audit sessions.
uint64_t ReadAuditSession() {
  const HostOpenFile file(open("/proc/self/sessionid", O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return errno == ENOENT || errno == ENOTDIR ? kIsRead | kNoAuditSession : 0;
  char text[16];
  const ssize_t size = read(file.Get(), text, sizeof text - 1);
  if (size <= 0) return 0;
  text[size] = 0;
  UInt32 id = kNoAuditSession;
  if (!ParseNumber(text, &id) || !IsRealId(id)) id = kNoAuditSession;
  return kIsRead | id;
}

uint64_t AuditSession() {
  uint64_t known = sAuditSession.load();
  if (known == 0) {
    known = ReadAuditSession();
    if (known != 0) sAuditSession.store(known);
  }
  return known;
}

bool IsSet(const char* variable) {
  const char* value = getenv(variable);
  return value != nullptr && value[0] != 0;
}

// Returns whether the caller belongs to a login session, and fills in the id.
bool FindId(HostSession* session) {
  session->idSource = "VLTHOST_SESSION_ID";
  if (ParseNumber(secure_getenv("VLTHOST_SESSION_ID"), &session->id) && IsRealId(session->id)) {
    return true;
  }
  session->idSource = "audit session";
  const uint64_t audit = AuditSession();
  session->isKnown = audit != 0;
  session->id = static_cast<SecuritySessionId>(audit);
  if (audit == 0 || session->id != kNoAuditSession) return true;
  // Uses the real user id, because the effective one may be changed for the length of a block.
  const uid_t uid = getuid();
  session->idSource = "user id";
  session->id = uid != 0 ? static_cast<SecuritySessionId>(uid) : kRootUserSession;
  return false;
}

}  // namespace

HostSession HostDescribeOwnSession() {
  HostSession session;
  const bool isLogin = FindId(&session);
  if (ParseNumber(secure_getenv("VLTHOST_SESSION_BITS"), &session.attributes)) {
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
