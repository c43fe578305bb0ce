#pragma once

#include <CoreServices/CoreServices.h>
#include <sys/types.h>

// The login session of the process, what that session may do, and the user of the process. Any
// thread, but the effective user belongs to the whole process.

// Store the login session's id, which is only good for comparing, and its attributes
// (Security/Security.h). Return the platform's status. Outputs are stored on success only.
OSStatus GetUserSessionID(UInt32& sessionID);
OSStatus GetUserSessionFlags(UInt32& attributes);

// Always store their output: false if the platform gives an error.
OSStatus GetUserSessionIsRoot(bool& isRoot);
OSStatus GetUserSessionHasGraphicAccess(bool& hasGraphicAccess);

// Changes the effective user. Returns 0 even if the kernel refuses, which leaves `succeeded` false.
//
// previousID  receives the effective user before the call
// succeeded   receives true if the effective user is now `newID`
// changed     receives true if it was another one before
//
// A literal 0 is ambiguous between the two functions: write static_cast<uid_t>(0).
OSStatus SetUserID(uid_t newID, uid_t& previousID, bool& succeeded, bool& changed);

// Changes the effective user to the one with this name. A null or empty name gives paramErr and
// stores nothing. A user that does not exist gives 0 with both flags false. One thread at a time,
// together with GetCurrentUserName.
OSStatus SetUserID(const char* userName, uid_t& previousID, bool& succeeded, bool& changed);

// Stores the name of the process's real user with its NUL. Returns paramErr and stores nothing if
// it does not fit into `bufferSize` bytes, if the user has no name, or if an argument is null or 0.
OSStatus GetCurrentUserName(char* buffer, UInt32 bufferSize);

// StUseridSetter changes the effective user until the end of a block. The effective user belongs to
// the whole process: keep such blocks short and on one thread at a time. A failure to switch or to
// switch back is not reported: check geteuid before doing what the wrong user must not do.
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
