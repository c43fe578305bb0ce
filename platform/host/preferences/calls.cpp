#include <CoreFoundation/CFPreferences.h>

#include <atomic>
#include <new>
#include <string>
#include <vector>

#include "platform/host/base/guard.h"
#include "platform/host/objects/cf_array.h"
#include "platform/host/preferences/search.h"

namespace {

// A value was set while there was no memory to find the file it belongs to. The next commit reports
// it, whichever file that is of.
constinit std::atomic<bool> sIsValueLost{false};

// Returns null if there is no memory for `work`, which looks for values.
template <class Result, class Work>
Result Reading(Work work) {
  Result result = nullptr;
  if (!HostGuard([&] { result = work(); })) HostPreferencesFile::NoteLostRead();
  return result;
}

template <class Use>
void WithFileToSet(CFStringRef application, CFStringRef user, CFStringRef host, Use use) {
  const bool isDone = HostGuard([&] {
    HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
    if (file != nullptr) use(*file);
  });
  if (!isDone) sIsValueLost.store(true);
}

CFArrayRef CopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  if (file == nullptr) return nullptr;
  const HostRetained<HostCFDictionary> all = file->CopyAll();
  if (!all) return nullptr;
  const CFIndex count = CFDictionaryGetCount(all.Get());
  if (count == 0) return nullptr;
  std::vector<const void*> keys(static_cast<size_t>(count));
  CFDictionaryGetKeysAndValues(all.Get(), keys.data(), nullptr);
  const CFArrayRef list =
      CFArrayCreate(kCFAllocatorDefault, keys.data(), count, &kCFTypeArrayCallBacks);
  if (list == nullptr) throw std::bad_alloc();
  return list;
}

HostRetained<HostCFDictionary> NewTable() {
  return HostRetained<HostCFDictionary>(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

CFDictionaryRef CopyMultiple(CFArrayRef keys, CFStringRef application, CFStringRef user,
                             CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  if (file == nullptr) return NewTable().Give();
  HostRetained<HostCFDictionary> all = file->CopyAll();
  if (keys == nullptr || !all) return all.Give();
  HostRetained<HostCFDictionary> some = NewTable();
  for (CFIndex i = 0; i < CFArrayGetCount(keys); i++) {
    const HostPair* const found = all->Find(CFArrayGetValueAtIndex(keys, i));
    if (found == nullptr) continue;
    if (!some || !some->Set(found->key, found->value)) throw std::bad_alloc();
  }
  return some.Give();
}

void RemoveKeys(HostPreferencesFile& file, CFArrayRef keys) {
  for (CFIndex i = 0; i < CFArrayGetCount(keys); i++) {
    file.Set(static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i)), nullptr);
  }
}

void SetPair(const void* key, const void* value, void* context) {
  static_cast<HostPreferencesFile*>(context)->Set(static_cast<CFStringRef>(key), value);
}

}  // namespace

CFPropertyListRef CFPreferencesCopyValue(CFStringRef key, CFStringRef application, CFStringRef user,
                                         CFStringRef host) {
  return Reading<CFPropertyListRef>([&] {
    HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
    return file != nullptr ? file->CopyValue(key) : nullptr;
  });
}

CFArrayRef CFPreferencesCopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host) {
  return Reading<CFArrayRef>([=] { return CopyKeyList(application, user, host); });
}

CFDictionaryRef CFPreferencesCopyMultiple(CFArrayRef keys, CFStringRef application,
                                          CFStringRef user, CFStringRef host) {
  return Reading<CFDictionaryRef>([=] { return CopyMultiple(keys, application, user, host); });
}

void CFPreferencesSetValue(CFStringRef key, CFPropertyListRef value, CFStringRef application,
                           CFStringRef user, CFStringRef host) {
  WithFileToSet(application, user, host, [=](HostPreferencesFile& file) { file.Set(key, value); });
}

void CFPreferencesSetMultiple(CFDictionaryRef toSet, CFArrayRef toRemove, CFStringRef application,
                              CFStringRef user, CFStringRef host) {
  WithFileToSet(application, user, host, [=](HostPreferencesFile& file) {
    RemoveKeys(file, toRemove);
    CFDictionaryApplyFunction(toSet, SetPair, &file);
  });
}

Boolean CFPreferencesSynchronize(CFStringRef application, CFStringRef user, CFStringRef host) {
  const bool isWritten = HostGuard(false, [=] {
    HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
    return file != nullptr && file->Synchronize();
  });
  return !sIsValueLost.exchange(false) && isWritten;
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
