#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/host/applications/open_application.h"
#include "platform/host/applications/program_log.h"

// Information about applications and processes that no platform call gives, and opening with a
// report (open_application.h). For tools, benchmarks and tests only. Any thread.

// An application that can be found by its identifier or signature.
struct HostApplicationInfo {
  std::string path;    // of its bundle
  std::string folder;  // the application folder it was found in
  std::string identifier;
  std::string version;
  OSType signature = 0;
  std::string program = {};  // path of its program, or "" if the description names none
  std::string problem = {};  // why it cannot be opened, in one line; "" if nothing is wrong
};

// Return the folders in which applications are searched, in their order, and the applications in
// them.
std::vector<std::string> HostListApplicationFolders();
std::vector<HostApplicationInfo> HostDescribeApplications();

// Returns also the bundles that are not among the applications because of a problem.
std::vector<HostApplicationInfo> HostDescribeAllBundles();

// Returns what would be opened at a path: a bundle, or a program without one, with its problem.
HostApplicationInfo HostDescribeItem(const std::string& path);

// Returns the application that a running program belongs to, with its problem; an empty path if it
// is not the program of a bundle.
HostApplicationInfo HostApplicationOfProgram(const std::string& program);

// A process of the process list and its program.
struct HostProcessInfo {
  pid_t pid = 0;
  OSType type = 0;  // type and signature as in GetProcessInformation
  OSType signature = 0;
  std::string program;     // path from /proc, or ""
  std::string bundle;      // path of the application bundle, or ""
  std::string identifier;  // of the bundle, or ""
};

// The resources that a process uses, from /proc. A number that the kernel does not report is -1.
struct HostProcessUse {
  double ageSeconds = -1;
  long long residentBytes = -1;
  int descriptors = -1;
};
HostProcessUse HostMeasureProcess(pid_t pid);

// Returns false and stores nothing if the process has ended or belongs to another user.
bool HostDescribeProcess(const ProcessSerialNumber& psn, HostProcessInfo* info);
