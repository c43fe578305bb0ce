#pragma once

#include <CoreFoundation/CFPreferences.h>

#include "platform/host/preferences/store.h"

// The domains in which an application's preferences are looked up, the strongest first. Any thread.

// The four domains of one kind of user that hold an application's values, the strongest first.
struct HostPreferencesDomainKind {
  bool isForAnyApplication;
  CFStringRef const* host;
};
inline const HostPreferencesDomainKind kHostPreferencesDomainKinds[] = {
    {false, &kCFPreferencesCurrentHost},
    {false, &kCFPreferencesAnyHost},
    {true, &kCFPreferencesCurrentHost},
    {true, &kCFPreferencesAnyHost}};
inline CFStringRef const* const kHostPreferencesUsers[] = {&kCFPreferencesCurrentUser,
                                                           &kCFPreferencesAnyUser};

// Calls `visit` for each domain that holds an application's values, in the order in which they are
// searched, until it says true.
template <class Visit>
void HostVisitPreferencesDomains(CFStringRef application, Visit visit) {
  for (CFStringRef const* user : kHostPreferencesUsers) {
    for (const HostPreferencesDomainKind& kind : kHostPreferencesDomainKinds) {
      const CFStringRef of = kind.isForAnyApplication ? kCFPreferencesAnyApplication : application;
      if (visit(of, *user, *kind.host)) return;
    }
  }
}

// The file of one domain; null for a domain that can have no file. Never freed.
inline HostPreferencesFile* HostFindPreferencesFile(CFStringRef application, CFStringRef user,
                                                    CFStringRef host) {
  const HostPreferencesPlace place = HostFindPreferencesPlace(application, user, host);
  return place.path.empty() ? nullptr : &HostPreferencesFile::At(place);
}
