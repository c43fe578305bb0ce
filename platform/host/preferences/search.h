#pragma once

#include <CoreFoundation/CFPreferences.h>

#include "platform/host/preferences/store.h"

// The domains in which an application's preferences are searched. Any thread.

// The four domains of one user scope, in the order in which they are searched.
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

// Calls `visit` for each domain of an application, in the order in which they are searched, until
// it returns true.
template <class Visit>
void HostVisitPreferencesDomains(CFStringRef application, Visit visit) {
  for (CFStringRef const* user : kHostPreferencesUsers) {
    for (const HostPreferencesDomainKind& kind : kHostPreferencesDomainKinds) {
      const CFStringRef of = kind.isForAnyApplication ? kCFPreferencesAnyApplication : application;
      if (visit(of, *user, *kind.host)) return;
    }
  }
}

// Returns the file of one domain, or null if it can have no file. Never destroyed.
HostPreferencesFile* HostFindPreferencesFile(CFStringRef application, CFStringRef user,
                                             CFStringRef host);
