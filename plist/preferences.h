#pragma once

#include "plist/dictionary_base.h"

// VLTPreferences keeps its entries in the preferences of one application, user scope and host
// scope. What is set is seen at once in this process, and by others once commit has succeeded. One
// thread at a time; several objects may stand for one domain.
//
// Each read through a getter leaves one reference to the value it found outstanding, so what
// getString, getDictionary and getArray hand out stays valid whatever becomes of the entry, and may
// be released once. The value is the one that the preferences hold anyway: its count grows, memory
// does not.
class VLTPreferences : public VLTDictionaryBase {
 public:
  // `applicationId` is Mac Roman text; null is the current application. `user` and `host` are the
  // platform's constants, kept as given and not retained.
  VLTPreferences(const char* applicationId, CFStringRef user, CFStringRef host);
  ~VLTPreferences() override;

  // Makes what was set durable. paramErr when it could not be written: it stays set in this
  // process, and the next commit tries again.
  OSStatus commit();

  CFArrayRef getKeys();  // null when the domain is empty; the caller releases it
  void setMultiple(CFDictionaryRef toSet, CFArrayRef toRemove);  // either may be null
  CFDictionaryRef getMultiple(CFArrayRef keys);                  // the caller releases it

 protected:
  OSStatus _set(CFStringRef key, const void* value) override;  // null removes; always 0
  OSStatus _get(CFStringRef key, const void*& value) override;
  OSStatus _remove(CFStringRef key) override;
  const void* _get(CFStringRef key) override;
  void _eraseExtant() override;
  void _addContentsOfDictionary(CFDictionaryRef source) override;
  CFDictionaryRef _getDictForSave() override;  // null when the domain is empty
  void _releaseDictAfterSave(CFDictionaryRef saved) override;

 private:
  CFStringRef applicationId;
  CFStringRef userScope;
  CFStringRef hostScope;
  bool ownsIdentifier;
};
