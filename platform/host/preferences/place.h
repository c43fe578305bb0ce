#pragma once

#include <CoreFoundation/CFString.h>

#include <string>

// Finds the file that holds the preferences of an application for a user scope and a host scope.
// This room is the store that the CFPreferences functions use: place.h finds a file's path, read.h
// reads it, commit.h changes it, store.h keeps its values in this process.
//
//   current user, any host      $XDG_CONFIG_HOME/veltrane/preferences/ID.plist
//   current user, current host  $XDG_CONFIG_HOME/veltrane/preferences/ByHost/ID.plist
//   any user, on either host    D/veltrane/preferences/ID.plist, D the first of $XDG_CONFIG_DIRS
//
// Without $XDG_CONFIG_HOME, .config in the home folder is used; without $XDG_CONFIG_DIRS, /etc/xdg.
// Relative paths in them are ignored. For any application, ID is .GlobalPreferences.

struct HostPreferencesPlace {
  std::string path;       // "" if there can be no such file
  bool isShared = false;  // for all users
};

// Returns an empty path if no file can hold these preferences. Any thread that does not race with
// changes of the environment.
HostPreferencesPlace HostFindPreferencesPlace(CFStringRef application, CFStringRef user,
                                              CFStringRef host);
