#include "launch/launch_spec.h"

namespace {

constexpr char kPreferencesDomain[] = "com.veltrane.common.1.1";

}  // namespace

// Constants, so that static objects of other files can be constructed from them.
constinit const VLTLaunchSpec gSessionMonitorLaunchSpec = {
    .launchIfNotFound = true,
    .launchRetrySleepInterval = 1,
    .launchRetries = 20,
    .signature = FourCC('S', 'm', 'o', 'N'),
    .bundleID = "com.veltrane.sessionmonitor.1.1",
    .executablePath = nullptr,
    .portName = "com.veltrane.vltsessiond.1.1",
    .prefsDomain = kPreferencesDomain,
    .prefsKey = "sessionMonitor",
    .reserved = 0,
    .launchBySignature = true,
    .launchByBundleID = true,
    .findBySignature = false,
    .findByPortName = true,
};

constinit const VLTLaunchSpec gDeviceMonitorLaunchSpec = {
    .launchIfNotFound = false,
    .launchRetrySleepInterval = 1,
    .launchRetries = 20,
    .signature = kDeviceMonitorSignature,
    .bundleID = "com.veltrane.devicemonitor.1.1",
    .executablePath = nullptr,
    .portName = "com.veltrane.vltdeviced.1.1",
    .prefsDomain = kPreferencesDomain,
    .prefsKey = "deviceMonitor",
    .reserved = 0,
    .launchBySignature = true,
    .launchByBundleID = true,
    .findBySignature = false,
    .findByPortName = true,
};
