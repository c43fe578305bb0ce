#pragma once

#include <cstddef>

#include <CoreServices/CoreServices.h>

// VLTLaunchSpec describes one daemon to the launcher: what it is called, how it is found when it
// runs and where it is when it does not. Static data that nobody changes. Booleans are words of 32
// bits, pointers are the host's own, so a record never leaves its process.
struct VLTLaunchSpec {
  UInt32 launchIfNotFound;          // start the daemon when it is not found
  SInt32 launchRetrySleepInterval;  // seconds between two probes for a started daemon; 0: default
  SInt32 launchRetries;             // probes for a started daemon; 0: default
  OSType signature;                 // of the application; 0 for none
  const char* bundleID;             // of the application, or null
  const char* executablePath;       // of the application or program to start, or null
  const char* portName;             // that the running daemon owns, or null
  const char* prefsDomain;          // where the administrator's launch preferences live, or null
  const char* prefsKey;             // of the dictionary in that domain, or null
  UInt32 reserved;                  // 0; nobody reads it
  UInt32 launchBySignature;         // the application may be located by its signature
  UInt32 launchByBundleID;          // the application may be located by its bundle identifier
  UInt32 findBySignature;           // find the running daemon in the process list
  UInt32 findByPortName;            // find the running daemon by its port
};

// The order is part of the interface; the size is so where a pointer has 32 bits.
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

// The daemons of the package. Clients start the session monitor by themselves; the device monitor
// only when they, or the preferences, turn that on.
extern const VLTLaunchSpec gSessionMonitorLaunchSpec;
extern const VLTLaunchSpec gDeviceMonitorLaunchSpec;
