#pragma once

#include <CoreFoundation/CFString.h>

#include <string>

// Which file has the preferences of an application, a user scope and a host scope:
//
//   current user, any host      $XDG_CONFIG_HOME/veltrane/preferences/ID.plist
//   current user, current host  $XDG_CONFIG_HOME/veltrane/preferences/ByHost/ID.plist
//   any user, on either host    D/veltrane/preferences/ID.plist, D the first of $XDG_CONFIG_DIRS
//
// $XDG_CONFIG_HOME is .config in the home folder and $XDG_CONFIG_DIRS is /etc/xdg where they are
// not set; paths that are not absolute do not count. ID is .GlobalPreferences for any application.

struct HostPreferencesPlace {
  std::string path;       // "" when there can be no file
  bool isShared = false;  // by all users
};

// Never fails: what no file can stand for has an empty path. Any thread.
HostPreferencesPlace HostFindPreferencesPlace(CFStringRef application, CFStringRef user,
                                              CFStringRef host);
