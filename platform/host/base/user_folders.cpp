#include "platform/host/base/user_folders.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <string_view>

namespace {

std::string Folder(std::string_view path) {
  if (path.empty() || path[0] != '/') return "";
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

std::string HomeOfUser(uid_t uid) {
  char text[1024];
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, text, sizeof text, &found) != 0 || found == nullptr) return "";
  return Folder(found->pw_dir != nullptr ? found->pw_dir : "");
}

// The folder that the variable names, else one in the home folder.
std::string UserFolder(const char* variable, const char* inHome) {
  std::string folder = HostFolderVariable(variable);
  if (!folder.empty()) return folder;
  const std::string home = HostHomeFolder();
  return home.empty() ? "" : home + inHome;
}

}  // namespace

std::string HostFolderVariable(const char* name) {
  const char* value = secure_getenv(name);
  return value != nullptr ? Folder(value) : "";
}

std::string HostHomeFolder() {
  std::string home = HostFolderVariable("HOME");
  return home.empty() ? HomeOfUser(getuid()) : home;
}

std::string HostDataFolder() { return UserFolder("XDG_DATA_HOME", "/.local/share"); }

std::string HostStateFolder() { return UserFolder("XDG_STATE_HOME", "/.local/state"); }

std::vector<std::string> HostSharedDataFolders() {
  const char* value = secure_getenv("XDG_DATA_DIRS");
  std::string_view rest = value != nullptr && value[0] != 0 ? value : "/usr/local/share:/usr/share";
  std::vector<std::string> folders;
  for (;;) {
    const size_t colon = rest.find(':');
    std::string folder = Folder(rest.substr(0, colon));
    if (!folder.empty()) folders.push_back(std::move(folder));
    if (colon == std::string_view::npos) return folders;
    rest.remove_prefix(colon + 1);
  }
}
