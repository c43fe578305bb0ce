#pragma once

#include "aeport/client_support.h"

// What the clients of both monitors share.

constexpr SInt32 kMonitorSendFlags = kAECanInteract + kAECanSwitchLayer + kAEDontRecord;
constexpr SInt32 kMonitorTimeoutTicks = 30000;

// Sends the quit event to a client's server, which is not started for it, and waits for no answer.
// A server that does not run counts as done; other failures of this side are logged under
// `failureName`.
//
// lookUpTells  whether a bootstrap code means, too, that the server does not run: for a client
//              that does not look for its server before it makes an event.
// Result       0, or the failure of making or sending the event.
OSStatus SendQuitRequest(VLTAEClientSupport& client, bool lookUpTells, const char* failureName);
