#include "plist/dictionary.h"

VLTDictionary::VLTDictionary() : dictionary(newDictionary(nullptr)) {}
VLTDictionary::VLTDictionary(CFMutableDictionaryRef source) : dictionary(newDictionary(source)) {}
VLTDictionary::VLTDictionary(CFDictionaryRef source) : dictionary(newDictionary(source)) {}

VLTDictionary::~VLTDictionary() {
  if (dictionary == nullptr) return;
  LogRefCount(dictionary, "~VLTDictionary", -1);
  CFRelease(dictionary);
}

VLTDictionary& VLTDictionary::operator=(const VLTDictionary& other) {
  replaceContents(other);
  return *this;
}

CFMutableDictionaryRef VLTDictionary::newDictionary(CFDictionaryRef source) {
  if (source != nullptr) return CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, source);
  return CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                   &kCFTypeDictionaryValueCallBacks);
}

CFIndex VLTDictionary::getCount() const {
  return dictionary != nullptr ? CFDictionaryGetCount(dictionary) : 0;
}

void VLTDictionary::copyContents(const VLTDictionary& other) {
  dictionary = newDictionary(other.dictionary);  // meant: the old one is not released here
}

void VLTDictionary::destroyContents() {
  if (dictionary != nullptr && CFGetRetainCount(dictionary) > 0) CFRelease(dictionary);
  dictionary = nullptr;
}

void VLTDictionary::replaceContents(const VLTDictionary& other) {
  if (&other == this) return;
  destroyContents();
  copyContents(other);
}

OSStatus VLTDictionary::_set(CFStringRef key, const void* value) {
  CFDictionarySetValue(dictionary, key, value);
  return 0;
}

OSStatus VLTDictionary::_get(CFStringRef key, const void*& value) {
  return CFDictionaryGetValueIfPresent(dictionary, key, &value) ? 0 : paramErr;
}

OSStatus VLTDictionary::_remove(CFStringRef key) {
  CFDictionaryRemoveValue(dictionary, key);
  return 0;
}

const void* VLTDictionary::_get(CFStringRef key) { return CFDictionaryGetValue(dictionary, key); }

void VLTDictionary::_eraseExtant() {
  if (dictionary != nullptr) CFDictionaryRemoveAllValues(dictionary);
}

void VLTDictionary::_addContentsOfDictionary(CFDictionaryRef source) {
  if (source == nullptr || dictionary == nullptr) return;
  CFDictionaryApplyFunction(source, copyToDestDict, dictionary);
}

void VLTDictionary::copyToDestDict(const void* key, const void* value, void* context) {
  CFDictionarySetValue(static_cast<CFMutableDictionaryRef>(context), key, value);
}

CFDictionaryRef VLTDictionary::_getDictForSave() {
  CFRetain(dictionary);
  return dictionary;
}

void VLTDictionary::_releaseDictAfterSave(CFDictionaryRef saved) {
  if (saved != nullptr) CFRelease(saved);
}
