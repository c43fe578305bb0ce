#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/host/applications/open_application.h"

// Information about applications and processes that no platform call gives, and opening with a
// report (open_application.h). For tools, benchmarks and tests only. Any thread.

// An application that can be found by its identifier or signature.
struct HostApplicationInfo {
  std::string path;    // of its bundle
  std::string folder;  // the application folder it was found in
  std::string identifier;
  std::string version;
  OSType signature = 0;
};

// Return the folders in which applications are searched, in their order, and the applications in
// them.
std::vector<std::string> HostListApplicationFolders();
std::vector<HostApplicationInfo> HostDescribeApplications();

// A process of the process list and its program.
struct HostProcessInfo {
  pid_t pid = 0;
  OSType type = 0;  // type and signature as in GetProcessInformation
  OSType signature = 0;
  std::string program;     // path from /proc, or ""
  std::string bundle;      // path of the application bundle, or ""
  std::string identifier;  // of the bundle, or ""
};

// Returns false and stores nothing if the process has ended or belongs to another user.
bool HostDescribeProcess(const ProcessSerialNumber& psn, HostProcessInfo* info);
