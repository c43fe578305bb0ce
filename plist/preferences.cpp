#include "plist/preferences.h"

VLTPreferences::VLTPreferences(const char* identifier, CFStringRef user, CFStringRef host)
    : userScope(user), hostScope(host) {
  initStr(identifier, applicationId, kCFPreferencesCurrentApplication, ownsIdentifier);
}

VLTPreferences::~VLTPreferences() {
  if (ownsIdentifier) CFRelease(applicationId);
}

OSStatus VLTPreferences::commit() {
  return CFPreferencesSynchronize(applicationId, userScope, hostScope) ? 0 : paramErr;
}

CFArrayRef VLTPreferences::getKeys() {
  return CFPreferencesCopyKeyList(applicationId, userScope, hostScope);
}

void VLTPreferences::setMultiple(CFDictionaryRef toSet, CFArrayRef toRemove) {
  CFPreferencesSetMultiple(toSet, toRemove, applicationId, userScope, hostScope);
}

CFDictionaryRef VLTPreferences::getMultiple(CFArrayRef keys) {
  return CFPreferencesCopyMultiple(keys, applicationId, userScope, hostScope);
}

OSStatus VLTPreferences::_set(CFStringRef key, const void* value) {
  CFPreferencesSetValue(key, value, applicationId, userScope, hostScope);
  return 0;
}

OSStatus VLTPreferences::_get(CFStringRef key, const void*&) {
  // Meant: reports only whether there is a value and leaves a reference to it unreleased, because
  // callers rely on it (preferences.h).
  return _get(key) != nullptr ? 0 : paramErr;
}

OSStatus VLTPreferences::_remove(CFStringRef key) { return _set(key, nullptr); }

const void* VLTPreferences::_get(CFStringRef key) {
  return CFPreferencesCopyValue(key, applicationId, userScope, hostScope);
}

void VLTPreferences::_eraseExtant() {
  const CFArrayRef keys = getKeys();
  if (keys == nullptr) return;
  setMultiple(nullptr, keys);
  CFRelease(keys);
}

void VLTPreferences::_addContentsOfDictionary(CFDictionaryRef source) {
  setMultiple(source, nullptr);
}

CFDictionaryRef VLTPreferences::_getDictForSave() {
  const CFArrayRef keys = getKeys();
  if (keys == nullptr) return nullptr;
  const CFDictionaryRef all = getMultiple(keys);
  CFRelease(keys);
  return all;
}

void VLTPreferences::_releaseDictAfterSave(CFDictionaryRef saved) {
  if (saved != nullptr) CFRelease(saved);
}
