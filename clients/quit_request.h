#pragma once

#include "aeport/client_support.h"

// The common parts of the clients of both daemons. Any thread that may use the client.

constexpr SInt32 kMonitorSendFlags = kAECanInteract + kAECanSwitchLayer + kAEDontRecord;
constexpr SInt32 kMonitorTimeoutTicks = 30000;

// Sends the quit event to a client's server without waiting for a reply. Never starts the server.
// Returns 0 if the server does not run. Other failures on the client's side are logged under
// `failureName`.
//
// lookUpTells  Whether a bootstrap code also means that the server does not run. True for a client
//              that does not look its server up before it creates an event.
// Result       0, or the error of creating or sending the event.
OSStatus SendQuitRequest(VLTAEClientSupport& client, bool lookUpTells, const char* failureName);
