#pragma once

#include <cstddef>

#include <CoreServices/CoreServices.h>

// VLTLaunchSpec describes one daemon to the launcher: its names, how to find it if it runs, and
// where its application is if it does not. Constant data, so any thread may read it. Boolean values
// have 32 bits and pointers the size of the CPU, so a launch specification never leaves its
// process.
struct VLTLaunchSpec {
  UInt32 launchIfNotFound;          // start the daemon if it is not found
  SInt32 launchRetrySleepInterval;  // seconds between two probes for a started daemon; 0: 2 s
  SInt32 launchRetries;             // probes for a started daemon; 0: 20
  OSType signature;                 // of the application, or 0
  const char* bundleID;             // of the application, or null
  const char* executablePath;       // of the application or program to start, or null
  const char* portName;             // that the daemon owns while it runs, or null
  const char* prefsDomain;          // preferences domain of the launch preferences, or null
  const char* prefsKey;             // key of their dictionary in that domain, or null
  UInt32 reserved;                  // 0; never read
  UInt32 launchBySignature;         // the application may be located by its signature
  UInt32 launchByBundleID;          // the application may be located by its bundle identifier
  UInt32 findBySignature;           // find the running daemon in the process list
  UInt32 findByPortName;            // find the running daemon by its port
};

// The order is part of the interface, and so is the size where a pointer has 32 bits.
static_assert(sizeof(void*) != 4 || sizeof(VLTLaunchSpec) == 56);
static_assert(offsetof(VLTLaunchSpec, launchIfNotFound) == 0);
static_assert(offsetof(VLTLaunchSpec, launchRetrySleepInterval) == 4);
static_assert(offsetof(VLTLaunchSpec, launchRetries) == 8);
static_assert(offsetof(VLTLaunchSpec, signature) == 12);
static_assert(offsetof(VLTLaunchSpec, bundleID) == 16);
static_assert(offsetof(VLTLaunchSpec, executablePath) == 16 + sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, portName) == 16 + 2 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, prefsDomain) == 16 + 3 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, prefsKey) == 16 + 4 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, reserved) == 16 + 5 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, launchBySignature) == 20 + 5 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, launchByBundleID) == 24 + 5 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, findBySignature) == 28 + 5 * sizeof(void*));
static_assert(offsetof(VLTLaunchSpec, findByPortName) == 32 + 5 * sizeof(void*));

// The signature of the device monitor's application, which is also the class of its events.
inline constexpr OSType kDeviceMonitorSignature = FourCC('C', 'm', 'o', 'N');

// The daemons of the package. Clients start the session daemon automatically. They start the device
// monitor only if the client or the launch preferences ask for it.
extern const VLTLaunchSpec gSessionMonitorLaunchSpec;
extern const VLTLaunchSpec gDeviceMonitorLaunchSpec;
