#include "platform/host/base/install_prefix.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

// A program that was compiled against an installation defines it (CoreServices/MacTypes.h).
extern "C" const char kVLTHeaderFile[] __attribute__((weak));

namespace {

constexpr std::string_view kHeader = "/include/vlt/platform/include/CoreServices/MacTypes.h";
constexpr std::string_view kApplications = "/share/veltrane/Applications/";

std::string RunningProgram() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  return {path, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

// Without links and "..", as the compiler may have been given them.
std::string Resolved(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : "";
}

}  // namespace

std::string HostPrefixOfProgram(const std::string& path) {
  if (path.empty() || path[0] != '/') return "";
  const size_t applications = path.rfind(kApplications);
  if (applications != std::string::npos) return path.substr(0, applications);
  const std::string folder = path.substr(0, path.rfind('/'));
  for (const std::string_view inner : {"/bin", "/libexec/veltrane"}) {
    if (folder.ends_with(inner)) return folder.substr(0, folder.size() - inner.size());
  }
  return "";
}

std::string HostPrefixOfHeader(const std::string& path) {
  if (path.empty() || path[0] != '/' || !path.ends_with(kHeader)) return "";
  return path.substr(0, path.size() - kHeader.size());
}

std::vector<std::string> HostInstallPrefixes() {
  std::vector<std::string> prefixes;
  const bool isRaised = getauxval(AT_SECURE) != 0;
  std::string prefix = isRaised ? "" : HostPrefixOfProgram(RunningProgram());
  if (!prefix.empty()) prefixes.push_back(std::move(prefix));
  if (kVLTHeaderFile == nullptr) return prefixes;
  prefix = HostPrefixOfHeader(kVLTHeaderFile);
  if (!prefix.empty()) prefix = Resolved(prefix);
  if (!prefix.empty() && std::find(prefixes.begin(), prefixes.end(), prefix) == prefixes.end()) {
    prefixes.push_back(std::move(prefix));
  }
  return prefixes;
}
