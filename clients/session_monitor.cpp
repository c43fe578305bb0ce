#include "clients/session_monitor.h"

#include "clients/quit_request.h"
#include "launch/launch.h"

namespace {

VLTLaunch sLauncher(gSessionMonitorLaunchSpec);
SMClient sClient;

}  // namespace

SMClient::SMClient()
    : VLTAEClientSupport("VeltraneSessionMonitor", "client", "Driver", kMonitorSendFlags,
                         kMonitorTimeoutTicks, false, false, true) {}

OSStatus SMClient::GetDestinationAddress(VLTPortDestinationAddress& address) {
  address = VLTPortDestinationAddress(gSessionMonitorLaunchSpec.portName);
  return 0;
}

OSStatus SMClient::VerifyServerRunning() { return SMVerifyDaemonRunning(); }

OSStatus SMCheckDaemonRunning() { return sLauncher.find(); }
OSStatus SMVerifyDaemonRunning() { return sLauncher.findAndLaunch(); }

// This client does not look for the daemon before it creates the event, so the look-up of the
// event's address finds out that the daemon does not run.
OSStatus SMQuitDaemon() { return SendQuitRequest(sClient, true, "SMQuitDaemon"); }

OSStatus SMSetDeviceMonitorExecutable(FSSpec* spec) {
  return spec == nullptr ? OSStatus{paramErr} : sLauncher.setExecutable(spec);
}

OSStatus SMSetSendEventTimeout(UInt32 timeoutTicks) {
  sClient.setSendEventTimeout(timeoutTicks);
  return 0;
}

OSStatus SMSetLaunchIfNotRunning(bool launchIt) {
  sLauncher.setLaunchIfNotRunning(launchIt);
  return 0;
}
