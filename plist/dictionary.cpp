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
  isDestroyed = false;
  // Meant: does not release the old dictionary, because callers rely on it.
  dictionary = newDictionary(other.dictionary);
}

void VLTDictionary::destroyContents() {
  if (dictionary != nullptr && CFGetRetainCount(dictionary) > 0) CFRelease(dictionary);
  dictionary = nullptr;
  isDestroyed = true;
}

void VLTDictionary::replaceContents(const VLTDictionary& other) {
  if (&other == this) return;
  destroyContents();
  copyContents(other);
}

OSStatus VLTDictionary::_set(CFStringRef key, const void* value) {
  if (IsLost()) return memFullErr;
  CFDictionarySetValue(dictionary, key, value);
  const bool isKept = dictionary == nullptr || key == nullptr || value == nullptr ||
                      CFDictionaryGetValue(dictionary, key) == value;
  return isKept ? 0 : OSStatus{memFullErr};
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

// The two dictionaries in taking over another one's contents: the pairs go `into` this one, which
// was as `before` (null: empty). Each step is applied to all pairs of a dictionary. Only the first
// one needs memory, so the others cannot leave the work half done.
struct VLTDictionary::Taking {
  CFMutableDictionaryRef into;
  CFDictionaryRef source;
  CFDictionaryRef before;
  bool isComplete = true;

  static void AddNew(const void* key, const void* value, void* context) {
    auto& taking = *static_cast<Taking*>(context);
    if (!taking.isComplete || CFDictionaryContainsKey(taking.into, key)) return;
    CFDictionarySetValue(taking.into, key, value);
    taking.isComplete = CFDictionaryContainsKey(taking.into, key);
  }
  static void TakeBack(const void* key, const void*, void* context) {
    auto& taking = *static_cast<Taking*>(context);
    if (taking.before != nullptr && CFDictionaryContainsKey(taking.before, key)) return;
    CFDictionaryRemoveValue(taking.into, key);
  }
  static void RemoveOld(const void* key, const void*, void* context) {
    auto& taking = *static_cast<Taking*>(context);
    if (CFDictionaryContainsKey(taking.source, key)) return;
    CFDictionaryRemoveValue(taking.into, key);
  }
};

OSStatus VLTDictionary::_takeContents(CFDictionaryRef source, bool merge) {
  if (dictionary == nullptr) return IsLost() ? OSStatus{memFullErr} : 0;
  const bool isEmpty = CFDictionaryGetCount(dictionary) == 0;
  const CFDictionaryRef before =
      isEmpty ? nullptr : CFDictionaryCreateCopy(kCFAllocatorDefault, dictionary);
  if (!isEmpty && before == nullptr) return memFullErr;
  Taking taking = {dictionary, source, before};
  CFDictionaryApplyFunction(source, Taking::AddNew, &taking);
  if (taking.isComplete) {
    if (!merge && before != nullptr) {
      CFDictionaryApplyFunction(before, Taking::RemoveOld, &taking);
    }
    if (before != nullptr) _addContentsOfDictionary(source);
  } else {
    CFDictionaryApplyFunction(source, Taking::TakeBack, &taking);
  }
  if (before != nullptr) CFRelease(before);
  return taking.isComplete ? 0 : OSStatus{memFullErr};
}

CFDictionaryRef VLTDictionary::_getDictForSave() {
  CFRetain(dictionary);
  return dictionary;
}

void VLTDictionary::_releaseDictAfterSave(CFDictionaryRef saved) {
  if (saved != nullptr) CFRelease(saved);
}
