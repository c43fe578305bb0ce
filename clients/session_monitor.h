#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/client_support.h"

// The session daemon as its clients see it, the daemon itself among them: whether it runs, starting
// it, asking it to quit. Only the fixed port name counts; there is no name for each session, for
// there is one daemon in each.
//
// The launcher and the client behind these functions exist from before main until the process ends;
// nobody uses them outside of that. One thread at a time.

// Makes the session daemon's requests.
class SMClient : public VLTAEClientSupport {
 public:
  SMClient();

  OSStatus GetDestinationAddress(VLTPortDestinationAddress& address) override;
  OSStatus VerifyServerRunning() override;
};

// 0 when the daemon runs; procNotFound when it does not. Starts nothing. paramErr when launch
// preferences leave no way to find it, and the error of reading them.
OSStatus SMCheckDaemonRunning();

// The same, but starts the daemon if it can, and waits for its port: for some 20 seconds when the
// daemon does not appear.
OSStatus SMVerifyDaemonRunning();

// Asks the daemon to quit and waits for no answer; works on the daemon's own thread, before its
// loop runs, too. One that is not running counts as done, and none is started.
OSStatus SMQuitDaemon();

// The application to start as the SESSION monitor; the name is meant. paramErr for null, else
// VLTLaunch::setExecutable.
OSStatus SMSetDeviceMonitorExecutable(FSSpec* spec);

OSStatus SMSetSendEventTimeout(UInt32 timeoutTicks);  // 1/60 s; 0 waits for ever. 0
OSStatus SMSetLaunchIfNotRunning(bool launchIt);      // launch preferences override it. 0
