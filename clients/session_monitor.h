#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/client_support.h"

// Finding, starting and ending the session daemon; the daemon itself is one of the clients. Its
// port name is fixed: there is one daemon per session, so no name per login session is needed.
//
// The launcher and the client that these functions use are static objects. Do not use them from
// constructors or destructors of other static objects. One thread at a time.

// Sends the requests to the session daemon.
class SMClient : public VLTAEClientSupport {
 public:
  SMClient();

  OSStatus GetDestinationAddress(VLTPortDestinationAddress& address) override;
  OSStatus VerifyServerRunning() override;
};

// Returns 0 if the daemon runs and procNotFound if not; never starts it. Returns paramErr if the
// launch preferences leave no way to find it, or the error of reading them.
OSStatus SMCheckDaemonRunning();

// Like SMCheckDaemonRunning, but starts the daemon if it does not run and waits for its port, for
// about 20 seconds if the daemon does not claim it.
OSStatus SMVerifyDaemonRunning();

// Sends the quit event without waiting for a reply. Never starts the daemon; returns 0 if it does
// not run. The daemon's own main thread may call it, too, before its event loop runs.
OSStatus SMQuitDaemon();

// Sets the application to start as the session daemon. Meant: the name says device monitor, because
// callers rely on it. Returns paramErr for null, else the result of VLTLaunch::setExecutable.
OSStatus SMSetDeviceMonitorExecutable(FSSpec* spec);

// Sets the time-out in 1/60 s; 0 waits for ever. Returns 0.
OSStatus SMSetSendEventTimeout(UInt32 timeoutTicks);
// Sets whether SMVerifyDaemonRunning starts the daemon. Launch preferences override it. Returns 0.
OSStatus SMSetLaunchIfNotRunning(bool launchIt);
