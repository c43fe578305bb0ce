#include "platform/host/applications/introspect.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>

#include "platform/host/applications/bundle.h"
#include "platform/host/applications/process_list.h"

namespace {

constexpr OSType kApplicationType = FourCC('A', 'P', 'P', 'L');

// The application folder that a path is in.
std::string FolderOf(const std::string& path) {
  for (const std::string& each : HostApplicationFolders()) {
    if (path.starts_with(each + "/")) return each;
  }
  return "";
}

HostApplicationInfo InfoOf(const HostBundle& bundle) {
  const bool hasProgram = !bundle.executable.empty();
  return {bundle.path,
          FolderOf(bundle.path),
          bundle.identifier,
          bundle.version,
          bundle.signature,
          hasProgram ? bundle.Program() : "",
          HostBundleProblem(bundle.path)};
}

}  // namespace

std::vector<std::string> HostListApplicationFolders() { return HostApplicationFolders(); }

std::vector<HostApplicationInfo> HostDescribeApplications() {
  std::vector<HostApplicationInfo> applications;
  for (const HostBundle& bundle : HostListApplications()) {
    if (bundle.packageType == kApplicationType) applications.push_back(InfoOf(bundle));
  }
  return applications;
}

std::vector<HostApplicationInfo> HostDescribeAllBundles() {
  std::vector<HostApplicationInfo> all;
  for (const std::string& path : HostListBundlePaths()) {
    HostBundle bundle;
    if (HostReadBundle(path, &bundle)) {
      all.push_back(InfoOf(bundle));
    } else {
      HostApplicationInfo& broken = all.emplace_back();
      broken.path = path;
      broken.folder = FolderOf(path);
      broken.problem = HostBundleProblem(path);
    }
  }
  return all;
}

HostApplicationInfo HostDescribeItem(const std::string& path) {
  HostBundle bundle;
  if (HostReadBundle(path, &bundle)) return InfoOf(bundle);
  HostApplicationInfo info;
  info.path = path;
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    info.problem = strerror(errno);
  } else if (S_ISDIR(status.st_mode)) {
    info.problem = HostBundleProblem(path);
  } else if (faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0) {
    info.problem = "it is not executable for this user";
  } else {
    info.program = path;
  }
  return info;
}

HostApplicationInfo HostApplicationOfProgram(const std::string& program) {
  HostBundle bundle;
  return HostBundleOfProgram(program, &bundle) ? InfoOf(bundle) : HostApplicationInfo{};
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

HostProcessUse HostMeasureProcess(pid_t pid) {
  HostProcessUse use;
  HostProcessStatus status;
  if (HostReadProcessStatus(pid, &status) != 0) return use;
  timespec sinceBoot;
  clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
  const double now =
      static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) / 1e9;
  const auto rate = static_cast<double>(sysconf(_SC_CLK_TCK));
  use.ageSeconds = std::max(now - static_cast<double>(status.startTicks) / rate, 0.0);
  const std::string folder = "/proc/" + std::to_string(pid);
  long long all = 0, resident = 0;
  if (std::ifstream(folder + "/statm") >> all >> resident) {
    use.residentBytes = resident * sysconf(_SC_PAGESIZE);
  }
  if (DIR* directory = opendir((folder + "/fd").c_str())) {
    use.descriptors = 0;
    while (const dirent* entry = readdir(directory)) use.descriptors += entry->d_name[0] != '.';
    closedir(directory);
  }
  return use;
}
