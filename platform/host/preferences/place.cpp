#include "platform/host/preferences/place.h"

#include <CoreFoundation/CFPreferences.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/host/applications/bundle.h"
#include "platform/host/base/user_folders.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/processes/proc_status.h"

namespace {

constinit HostCFString sAnyApplication{"kCFPreferencesAnyApplication"};
constinit HostCFString sCurrentApplication{"kCFPreferencesCurrentApplication"};
constinit HostCFString sAnyHost{"kCFPreferencesAnyHost"};
constinit HostCFString sCurrentHost{"kCFPreferencesCurrentHost"};
constinit HostCFString sAnyUser{"kCFPreferencesAnyUser"};
constinit HostCFString sCurrentUser{"kCFPreferencesCurrentUser"};

// Leaves room for the other parts of a file name of 255 bytes.
constexpr size_t kMaxIdentifierBytes = 200;

constexpr char kFolder[] = "/veltrane/preferences/";

bool Is(CFStringRef text, const HostCFString& constant) {
  return text == &constant || CFEqual(text, &constant);
}

std::string UserFolder() {
  std::string folder = HostFolderVariable("XDG_CONFIG_HOME");
  if (!folder.empty()) return folder;
  const std::string home = HostHomeFolder();
  return home.empty() ? "" : home + "/.config";
}

std::string SharedFolder() {
  const char* value = secure_getenv("XDG_CONFIG_DIRS");
  std::string_view rest = value != nullptr ? value : "";
  while (!rest.empty()) {
    const std::string_view folder = rest.substr(0, rest.find(':'));
    if (folder.starts_with('/')) return std::string(folder);
    rest.remove_prefix(std::min(folder.size() + 1, rest.size()));
  }
  return "/etc/xdg";
}

// Returns the identifier of the current application: that of this program's bundle, or the name of
// its file.
const std::string& OwnIdentifier() {
  static const std::string* const name = [] {
    const std::string path = HostProgramPath(getpid());
    HostBundle bundle;
    const bool isNamed = HostBundleOfProgram(path, &bundle) && !bundle.identifier.empty();
    return new std::string(isNamed ? bundle.identifier : path.substr(path.rfind('/') + 1));
  }();
  return *name;
}

std::string Identifier(CFStringRef application) {
  if (Is(application, sAnyApplication)) return ".GlobalPreferences";
  if (Is(application, sCurrentApplication)) return OwnIdentifier();
  const auto* text = HostCast<HostCFString>(application);
  if (text == nullptr) return "";
  char bytes[kMaxIdentifierBytes + 1];
  if (!CFStringGetCString(text, bytes, sizeof bytes, kCFStringEncodingUTF8)) return "";
  // A NUL inside ends the bytes early.
  return strlen(bytes) >= text->Length() ? bytes : "";
}

bool IsFileName(const std::string& identifier) {
  return !identifier.empty() && identifier.size() <= kMaxIdentifierBytes &&
         identifier.find('/') == std::string::npos && identifier.find("..") == std::string::npos;
}

}  // namespace

constinit const CFStringRef kCFPreferencesAnyApplication = &sAnyApplication;
constinit const CFStringRef kCFPreferencesCurrentApplication = &sCurrentApplication;
constinit const CFStringRef kCFPreferencesAnyHost = &sAnyHost;
constinit const CFStringRef kCFPreferencesCurrentHost = &sCurrentHost;
constinit const CFStringRef kCFPreferencesAnyUser = &sAnyUser;
constinit const CFStringRef kCFPreferencesCurrentUser = &sCurrentUser;

HostPreferencesPlace HostFindPreferencesPlace(CFStringRef application, CFStringRef user,
                                              CFStringRef host) {
  HostPreferencesPlace place;
  place.isShared = Is(user, sAnyUser);
  const bool isOnThisHost = Is(host, sCurrentHost);
  if (!place.isShared && !Is(user, sCurrentUser)) return place;
  if (!isOnThisHost && !Is(host, sAnyHost)) return place;
  const std::string identifier = Identifier(application);
  const std::string folder = place.isShared ? SharedFolder() : UserFolder();
  if (!IsFileName(identifier) || folder.empty()) return place;
  place.path =
      folder + kFolder + (isOnThisHost && !place.isShared ? "ByHost/" : "") + identifier + ".plist";
  return place;
}
