#include "platform/host/applications/introspect.h"

#include <algorithm>

#include "platform/host/applications/bundle.h"
#include "platform/host/applications/process_list.h"

std::vector<std::string> HostListApplicationFolders() { return HostApplicationFolders(); }

std::vector<HostApplicationInfo> HostDescribeApplications() {
  const std::vector<std::string> folders = HostApplicationFolders();
  std::vector<HostApplicationInfo> applications;
  for (const HostBundle& bundle : HostListApplications()) {
    if (bundle.packageType != FourCC('A', 'P', 'P', 'L')) continue;
    const auto folder = std::find_if(folders.begin(), folders.end(), [&](const std::string& each) {
      return bundle.path.starts_with(each + "/");
    });
    applications.push_back({bundle.path, folder != folders.end() ? *folder : "", bundle.identifier,
                            bundle.version, bundle.signature});
  }
  return applications;
}

bool HostDescribeProcess(const ProcessSerialNumber& psn, HostProcessInfo* info) {
  HostProcess process;
  if (!HostFindProcess(psn, &process)) return false;
  HostBundle bundle;
  HostBundleOfProcess(process, &info->program, &bundle);
  info->pid = process.pid;
  info->type = bundle.packageType;
  info->signature = bundle.signature;
  info->bundle = bundle.path;
  info->identifier = bundle.identifier;
  return true;
}
