#pragma once

#include <CoreServices/CoreServices.h>
#include <sys/types.h>

// Which login session the process belongs to, what that session may do, and as which user the
// process acts. Any thread, but the effective user belongs to the whole process.

// The session's id, to be compared only, and its attributes (Security/Security.h). The platform's
// status; outputs are stored on success only.
OSStatus GetUserSessionID(UInt32& sessionID);
OSStatus GetUserSessionFlags(UInt32& attributes);

// The output is always stored, false when the session could not be asked.
OSStatus GetUserSessionIsRoot(bool& isRoot);
OSStatus GetUserSessionHasGraphicAccess(bool& hasGraphicAccess);

// Changes the effective user. Always 0: a refusal is no error but leaves `succeeded` false.
//
// previousID  the effective user before
// succeeded   whether the effective user is `newID` now
// changed     whether it was another one before
//
// A literal 0 fits both forms: write static_cast<uid_t>(0).
OSStatus SetUserID(uid_t newID, uid_t& previousID, bool& succeeded, bool& changed);

// By name. paramErr, with nothing stored, for null and for an empty name; 0 with both flags false
// for a user that does not exist. Not for concurrent callers of this or of GetCurrentUserName.
OSStatus SetUserID(const char* userName, uid_t& previousID, bool& succeeded, bool& changed);

// The name of the process's real user with its terminating zero. paramErr, with nothing stored,
// when it does not fit into `bufferSize` bytes, the user has no name, or an argument is null or 0.
OSStatus GetCurrentUserName(char* buffer, UInt32 bufferSize);

// StUseridSetter acts as another user for the length of a block. The effective user is the whole
// process's: keep such blocks short and on one thread at a time. Whether the switch worked is not
// told, and neither is a failure to switch back: check with geteuid before doing what must not be
// done as the wrong user.
class StUseridSetter {
 public:
  explicit StUseridSetter(uid_t newID);
  ~StUseridSetter();
  StUseridSetter(const StUseridSetter&) = delete;
  StUseridSetter& operator=(const StUseridSetter&) = delete;

 private:
  uid_t previousUserID = 0;
  bool restore = false;
};
