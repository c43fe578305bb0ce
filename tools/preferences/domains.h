#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "util/owned_ref.h"

// The preferences domains that there are, and what an application sees of them. One thread.

struct PrefsDomain {
  std::string name;                // an application's identifier; for any application, the constant
  std::vector<std::string> files;  // the user's for this host, the user's, that of all users
  std::vector<std::string> scopes;  // of each file: "user, this host", "user", "all users"
};

// Returns the domains that have a file, by name. A folder that cannot be read appears as a line in
// `problems`; one that does not exist has none.
std::vector<PrefsDomain> ListPrefsDomains(std::vector<std::string>& problems);

// Returns the values that the application sees: each key's from the first file that has one. Why
// files are not used appears in `problems`.
OwnedRef<CFMutableDictionaryRef> CopyEffectivePrefs(CFStringRef application,
                                                    std::vector<std::string>& problems);

// The three arguments by which the platform calls name the preferences in a file.
struct PrefsPlace {
  CFStringRef application;
  CFStringRef user;
  CFStringRef host;
};
PrefsPlace PlaceOf(const HostPreferencesSource& source, CFStringRef application);
