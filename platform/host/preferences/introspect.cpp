#include "platform/host/preferences/introspect.h"

#include "platform/host/preferences/search.h"

std::vector<HostPreferencesSource> HostPreferencesSources(CFStringRef application,
                                                          CFStringRef key) {
  std::vector<HostPreferencesSource> sources;
  const HostPreferencesPlace own =
      HostFindPreferencesPlace(application, kCFPreferencesAnyUser, kCFPreferencesAnyHost);
  if (own.path.empty()) return sources;
  HostVisitPreferencesDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    HostPreferencesSource source;
    const HostPreferencesPlace place = HostFindPreferencesPlace(of, user, host);
    // It is the last one again, under another name.
    if (place.path.empty() || (!sources.empty() && sources.back().path == place.path)) return false;
    HostPreferencesFile& file = HostPreferencesFile::At(place);
    source.path = place.path;
    source.isForAnyUser = place.isShared;
    source.isForThisHost = host == kCFPreferencesCurrentHost && !place.isShared;
    source.isForAnyApplication = of == kCFPreferencesAnyApplication;
    source.problem = file.Problem(&source.exists);
    const CFTypeRef value = key != nullptr ? file.CopyValue(key) : nullptr;
    source.hasValue = value != nullptr;
    if (value != nullptr) CFRelease(value);
    sources.push_back(source);
    return false;
  });
  return sources;
}

std::string HostPreferencesProblem(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  if (file == nullptr) return "there can be no preferences file of this name";
  bool exists = false;
  const std::string refusal = file->Problem(&exists);
  return refusal.empty() ? file->Failure() : refusal;
}

bool HostPreferencesIsUnread(CFStringRef key, CFStringRef application, CFStringRef user,
                             CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr && file->IsUnread(key);
}

bool HostPreferencesLackMemory(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr && file->IsMemoryShort();
}
