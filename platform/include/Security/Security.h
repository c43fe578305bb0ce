#pragma once

#include <CoreServices/MacErrors.h>
#include <CoreServices/MacTypes.h>

// Login sessions. A session's id can only be compared with another one. Any thread.

using SecuritySessionId = UInt32;
enum : SecuritySessionId {
  noSecuritySession = 0,
  callerSecuritySession = 0xFFFFFFFF,  // the caller's own session
};

using SessionAttributeBits = UInt32;
enum : SessionAttributeBits {
  sessionIsRoot = 0x0001,            // of system daemons, outside every login
  sessionHasGraphicAccess = 0x0010,  // a display can be reached
  sessionHasTTY = 0x0020,
  sessionIsRemote = 0x1000,
  sessionWasInitialized = 0x8000,
};

#pragma GCC visibility push(default)
extern "C" {

// Reports the caller's own session, given as callerSecuritySession or by its id. Returns
// errSessionInvalidId for any other, and errSessionInternal if the session cannot be read now, for
// example for lack of file descriptors. Either output may be null. `id` receives the session's id,
// never one of the two constants above. Any thread.
OSStatus SessionGetInfo(SecuritySessionId session, SecuritySessionId* id,
                        SessionAttributeBits* attributes);

}  // extern "C"
#pragma GCC visibility pop
