#include <CoreFoundation/CFPreferences.h>

#include <string>
#include <vector>

#include "platform/host/objects/cf_array.h"
#include "platform/host/preferences/search.h"

namespace {

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
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr ? file->CopyValue(key) : nullptr;
}

CFArrayRef CFPreferencesCopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
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
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
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
  if (HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host))
    file->Set(key, value);
}

void CFPreferencesSetMultiple(CFDictionaryRef toSet, CFArrayRef toRemove, CFStringRef application,
                              CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  if (file == nullptr) return;
  RemoveKeys(*file, toRemove);
  CFDictionaryApplyFunction(toSet, SetPair, file);
}

Boolean CFPreferencesSynchronize(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr && file->Synchronize();
}

CFPropertyListRef CFPreferencesCopyAppValue(CFStringRef key, CFStringRef application) {
  CFPropertyListRef value = nullptr;
  HostVisitPreferencesDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
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
  HostVisitPreferencesDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    isWritten = CFPreferencesSynchronize(of, user, host) && isWritten;
    return false;
  });
  return isWritten;
}
