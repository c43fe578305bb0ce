#include "util/user_session.h"

#include <Security/Security.h>
#include <pwd.h>
#include <unistd.h>

#include <cstring>

namespace {

OSStatus SessionHas(SessionAttributeBits bit, bool& has) {
  UInt32 attributes = 0;
  const OSStatus err = GetUserSessionFlags(attributes);
  has = err == noErr && (attributes & bit) != 0;
  return err;
}

}  // namespace

OSStatus GetUserSessionID(UInt32& sessionID) {
  SecuritySessionId id = 0;
  const OSStatus err = SessionGetInfo(callerSecuritySession, &id, nullptr);
  if (err == noErr) sessionID = id;
  return err;
}

OSStatus GetUserSessionFlags(UInt32& attributes) {
  return SessionGetInfo(callerSecuritySession, nullptr, &attributes);
}

OSStatus GetUserSessionIsRoot(bool& isRoot) { return SessionHas(sessionIsRoot, isRoot); }

OSStatus GetUserSessionHasGraphicAccess(bool& hasGraphicAccess) {
  return SessionHas(sessionHasGraphicAccess, hasGraphicAccess);
}

OSStatus SetUserID(uid_t newID, uid_t& previousID, bool& succeeded, bool& changed) {
  previousID = geteuid();
  const bool isOther = newID != previousID;
  // The outputs report a failure.
  if (isOther) static_cast<void>(seteuid(newID) != 0);
  changed = isOther;
  succeeded = geteuid() == newID;
  return noErr;
}

OSStatus SetUserID(const char* userName, uid_t& previousID, bool& succeeded, bool& changed) {
  if (userName == nullptr || userName[0] == 0) return paramErr;
  succeeded = false;
  changed = false;
  previousID = geteuid();
  const passwd* user = getpwnam(userName);
  return user != nullptr ? SetUserID(user->pw_uid, previousID, succeeded, changed)
                         : OSStatus{noErr};
}

OSStatus GetCurrentUserName(char* buffer, UInt32 bufferSize) {
  if (buffer == nullptr || bufferSize == 0) return paramErr;
  const passwd* user = getpwuid(getuid());
  if (user == nullptr) return paramErr;
  const size_t length = std::strlen(user->pw_name);
  if (bufferSize < length + 1) return paramErr;
  std::memcpy(buffer, user->pw_name, length + 1);
  return noErr;
}

StUseridSetter::StUseridSetter(uid_t newID) {
  bool succeeded = false;
  bool changed = false;
  SetUserID(newID, previousUserID, succeeded, changed);
  restore = succeeded && changed;
}

StUseridSetter::~StUseridSetter() {
  uid_t previous = 0;
  bool succeeded = false;
  bool changed = false;
  if (restore) SetUserID(previousUserID, previous, succeeded, changed);
}
