#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/host/applications/open_application.h"

// What people ask about applications and processes that no documented call answers, and opening
// with a report (open_application.h). For tools, benchmarks and tests only. Any thread.

// An application that can be found by its identifier or signature.
struct HostApplicationInfo {
  std::string path;    // of its bundle
  std::string folder;  // the application folder it was found in
  std::string identifier;
  std::string version;
  OSType signature = 0;
};

// The folders that applications are looked for in, in their order, and what is in them.
std::vector<std::string> HostListApplicationFolders();
std::vector<HostApplicationInfo> HostDescribeApplications();

// A process of the process list, and where its program is.
struct HostProcessInfo {
  pid_t pid = 0;
  OSType type = 0;  // as GetProcessInformation tells them
  OSType signature = 0;
  std::string program;     // path as /proc tells, "" when it does not
  std::string bundle;      // path of the application bundle, "" for a program that has none
  std::string identifier;  // the bundle's, "" without
};

// False, with nothing stored, for a process that has ended or is not ours to see.
bool HostDescribeProcess(const ProcessSerialNumber& psn, HostProcessInfo* info);
