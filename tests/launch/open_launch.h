#pragma once

#include "launch/launch.h"

// A launcher with public state.
class OpenLaunch : public VLTLaunch {
 public:
  using VLTLaunch::VLTLaunch;

  using VLTLaunch::bundleID;
  using VLTLaunch::executable;
  using VLTLaunch::executableValid;
  using VLTLaunch::findByPortName;
  using VLTLaunch::findBySignature;
  using VLTLaunch::launchByBundleID;
  using VLTLaunch::launchBySignature;
  using VLTLaunch::launchIfNotFound;
  using VLTLaunch::launchRetries;
  using VLTLaunch::launchRetrySleepInterval;
  using VLTLaunch::portName;
};
