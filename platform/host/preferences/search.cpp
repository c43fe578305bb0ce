#include "platform/host/preferences/search.h"

#include <stdlib.h>

#include <mutex>
#include <string>

#include "platform/host/objects/cf_string.h"

namespace {

// A variable of the environment on which the path of a file depends.
struct Variable {
  const char* name;
  std::string value;  // "" also if it is not set: both mean the default

  static const char* Now(const char* name) {
    const char* const value = secure_getenv(name);
    return value != nullptr ? value : "";
  }
  bool IsSame() const { return value == Now(name); }
  void Take() { value = Now(name); }
};

// The domain that was used last. Most programs read one domain, and finding its path takes longer
// than everything else in a read except the system call.
struct LastFound {
  std::mutex mutex;  // guards all below
  HostRetained<HostCFString> application;
  CFStringRef user = nullptr;  // this and the next are the platform's constants
  CFStringRef host = nullptr;
  HostPreferencesFile* file = nullptr;
  Variable variables[3] = {{"XDG_CONFIG_HOME", ""}, {"HOME", ""}, {"XDG_CONFIG_DIRS", ""}};

  bool Is(CFStringRef ofApplication, CFStringRef ofUser, CFStringRef ofHost) const {
    if (file == nullptr || application.Get() != ofApplication) return false;
    if (user != ofUser || host != ofHost) return false;
    for (const Variable& variable : variables) {
      if (!variable.IsSame()) return false;
    }
    return true;
  }
};

LastFound& Last() {
  static auto* const last = new LastFound;
  return *last;
}

bool IsConstant(CFStringRef user, CFStringRef host) {
  return (user == kCFPreferencesCurrentUser || user == kCFPreferencesAnyUser) &&
         (host == kCFPreferencesCurrentHost || host == kCFPreferencesAnyHost);
}

}  // namespace

HostPreferencesFile* HostFindPreferencesFile(CFStringRef application, CFStringRef user,
                                             CFStringRef host) {
  LastFound& last = Last();
  {
    const std::lock_guard<std::mutex> lock(last.mutex);
    if (last.Is(application, user, host)) return last.file;
  }
  const HostPreferencesPlace place = HostFindPreferencesPlace(application, user, host);
  if (place.path.empty()) return nullptr;
  HostPreferencesFile* const file = &HostPreferencesFile::At(place);
  // Without HOME the home folder comes from the password database, which is read each time.
  if (IsConstant(user, host) && Variable::Now("HOME")[0] == '/') {
    const std::lock_guard<std::mutex> lock(last.mutex);
    last.file = nullptr;  // until all the rest is in place
    last.application = HostRetained<HostCFString>::Retaining(HostCast<HostCFString>(application));
    last.user = user;
    last.host = host;
    for (Variable& variable : last.variables) variable.Take();
    last.file = file;
  }
  return file;
}
