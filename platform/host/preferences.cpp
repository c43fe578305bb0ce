#include <CoreFoundation/CFPreferences.h>

#include <string>
#include <vector>

#include "platform/host/cf_array.h"
#include "platform/host/introspect.h"
#include "platform/host/preferences_store.h"

namespace {

// The four domains of one kind of user that hold an application's values, the strongest first.
struct DomainKind {
  bool isForAnyApplication;
  CFStringRef const* host;
};
const DomainKind kDomainKinds[] = {{false, &kCFPreferencesCurrentHost},
                                   {false, &kCFPreferencesAnyHost},
                                   {true, &kCFPreferencesCurrentHost},
                                   {true, &kCFPreferencesAnyHost}};
CFStringRef const* const kUsers[] = {&kCFPreferencesCurrentUser, &kCFPreferencesAnyUser};

// Calls `visit` for each domain that holds an application's values, in the order in which they are
// searched, until it says true.
template <class Visit>
void VisitDomains(CFStringRef application, Visit visit) {
  for (CFStringRef const* user : kUsers) {
    for (const DomainKind& kind : kDomainKinds) {
      const CFStringRef of = kind.isForAnyApplication ? kCFPreferencesAnyApplication : application;
      if (visit(of, *user, *kind.host)) return;
    }
  }
}

// Null for a domain that there is no file for.
HostPreferencesFile* FindFile(CFStringRef application, CFStringRef user, CFStringRef host) {
  const HostPreferencesPlace place = HostFindPreferencesPlace(application, user, host);
  return place.path.empty() ? nullptr : &HostPreferencesFile::At(place);
}

void RemoveKeys(HostPreferencesFile& file, CFArrayRef keys) {
  for (CFIndex i = 0; i < CFArrayGetCount(keys); i++) {
    file.Set(static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i)), nullptr);
  }
}

void SetPair(const void* key, const void* value, void* context) {
  static_cast<HostPreferencesFile*>(context)->Set(static_cast<CFStringRef>(key), value);
}

CFMutableDictionaryRef NewTable() {
  return CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                   &kCFTypeDictionaryValueCallBacks);
}

}  // namespace

CFPropertyListRef CFPreferencesCopyValue(CFStringRef key, CFStringRef application, CFStringRef user,
                                         CFStringRef host) {
  HostPreferencesFile* const file = FindFile(application, user, host);
  return file != nullptr ? file->CopyValue(key) : nullptr;
}

CFArrayRef CFPreferencesCopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = FindFile(application, user, host);
  if (file == nullptr) return nullptr;
  const HostRetained<HostCFDictionary> all = file->CopyAll();
  const CFIndex count = CFDictionaryGetCount(all.Get());
  if (count == 0) return nullptr;
  std::vector<const void*> keys(static_cast<size_t>(count));
  CFDictionaryGetKeysAndValues(all.Get(), keys.data(), nullptr);
  return CFArrayCreate(kCFAllocatorDefault, keys.data(), count, &kCFTypeArrayCallBacks);
}

CFDictionaryRef CFPreferencesCopyMultiple(CFArrayRef keys, CFStringRef application,
                                          CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = FindFile(application, user, host);
  if (file == nullptr) return NewTable();
  HostRetained<HostCFDictionary> all = file->CopyAll();
  if (keys == nullptr || !all) return all.Give();
  const CFMutableDictionaryRef some = NewTable();
  for (CFIndex i = 0; i < CFArrayGetCount(keys); i++) {
    const void* const key = CFArrayGetValueAtIndex(keys, i);
    CFDictionarySetValue(some, key, CFDictionaryGetValue(all.Get(), key));
  }
  return some;
}

void CFPreferencesSetValue(CFStringRef key, CFPropertyListRef value, CFStringRef application,
                           CFStringRef user, CFStringRef host) {
  if (HostPreferencesFile* const file = FindFile(application, user, host)) file->Set(key, value);
}

void CFPreferencesSetMultiple(CFDictionaryRef toSet, CFArrayRef toRemove, CFStringRef application,
                              CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = FindFile(application, user, host);
  if (file == nullptr) return;
  RemoveKeys(*file, toRemove);
  CFDictionaryApplyFunction(toSet, SetPair, file);
}

Boolean CFPreferencesSynchronize(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = FindFile(application, user, host);
  return file != nullptr && file->Synchronize();
}

CFPropertyListRef CFPreferencesCopyAppValue(CFStringRef key, CFStringRef application) {
  CFPropertyListRef value = nullptr;
  VisitDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    value = CFPreferencesCopyValue(key, of, user, host);
    return value != nullptr;
  });
  return value;
}

void CFPreferencesSetAppValue(CFStringRef key, CFPropertyListRef value, CFStringRef application) {
  CFPreferencesSetValue(key, value, application, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
}

Boolean CFPreferencesAppSynchronize(CFStringRef application) {
  bool isWritten = true;
  VisitDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    isWritten = CFPreferencesSynchronize(of, user, host) && isWritten;
    return false;
  });
  return isWritten;
}

std::vector<HostPreferencesSource> HostPreferencesSources(CFStringRef application,
                                                          CFStringRef key) {
  std::vector<HostPreferencesSource> sources;
  const HostPreferencesPlace own =
      HostFindPreferencesPlace(application, kCFPreferencesAnyUser, kCFPreferencesAnyHost);
  if (own.path.empty()) return sources;
  VisitDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    HostPreferencesSource source;
    const HostPreferencesPlace place = HostFindPreferencesPlace(of, user, host);
    // The last one again, under another name.
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
  HostPreferencesFile* const file = FindFile(application, user, host);
  if (file == nullptr) return "there can be no preferences file of this name";
  bool exists = false;
  const std::string refusal = file->Problem(&exists);
  return refusal.empty() ? file->Failure() : refusal;
}
