#pragma once

#include "plist/dictionary_base.h"

// VLTPreferences keeps its entries in the preferences of one application, user scope and host
// scope. This process sees a value as soon as it is set, other processes after a successful commit.
// One thread at a time; several objects may use the same domain.
//
// Meant: each getter call that finds a value leaves one reference to it unreleased. What getString,
// getDictionary and getArray return therefore stays valid when the entry changes, and the caller
// may release it once. The preferences keep one object for each value, so only its count grows.
class VLTPreferences : public VLTDictionaryBase {
 public:
  // `applicationId` is Mac Roman text; null stands for the current application. `user` and `host`
  // are the platform's constants; they are not retained.
  VLTPreferences(const char* applicationId, CFStringRef user, CFStringRef host);
  ~VLTPreferences() override;

  // Writes what was set and waits for the disk. Returns paramErr if that failed: the values stay
  // set in this process, and the next commit tries again. Returns paramErr also if a getter failed
  // because the file could not be read, and the file has another value under that key: the value
  // that was set is then given up, and the others are written.
  OSStatus commit();

  CFArrayRef getKeys();  // null if the domain is empty; the caller releases it
  void setMultiple(CFDictionaryRef toSet, CFArrayRef toRemove);  // either may be null
  CFDictionaryRef getMultiple(CFArrayRef keys);                  // the caller releases it

 protected:
  OSStatus _set(CFStringRef key, const void* value) override;  // null removes; returns 0
  OSStatus _get(CFStringRef key, const void*& value) override;
  OSStatus _remove(CFStringRef key) override;
  const void* _get(CFStringRef key) override;
  void _eraseExtant() override;
  void _addContentsOfDictionary(CFDictionaryRef source) override;
  CFDictionaryRef _getDictForSave() override;  // null if the domain is empty
  void _releaseDictAfterSave(CFDictionaryRef saved) override;

 private:
  CFStringRef applicationId;
  CFStringRef userScope;
  CFStringRef hostScope;
  bool ownsIdentifier;
};
