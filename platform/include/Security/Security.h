#pragma once

#include <CoreServices/MacErrors.h>
#include <CoreServices/MacTypes.h>

// Login sessions. A session's id can only be compared with another one. Any thread.

using SecuritySessionId = UInt32;
enum : SecuritySessionId {
  noSecuritySession = 0,
  callerSecuritySession = 0xFFFFFFFF,  // asks about the caller's own
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

// Only the caller's own session is known, by callerSecuritySession or by its id;
// errSessionInvalidId for every other; errSessionInternal if the session cannot be read now, for
// lack of file descriptors say. Either output may be null; `id` gets a real id, never one of the
// two above.
OSStatus SessionGetInfo(SecuritySessionId session, SecuritySessionId* id,
                        SessionAttributeBits* attributes);

}  // extern "C"
#pragma GCC visibility pop
