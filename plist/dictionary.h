#pragma once

#include "plist/dictionary_base.h"

// VLTDictionary keeps its entries in memory, in one mutable dictionary that it owns. What it is
// made from is copied (the table, not the values), never taken over. One thread at a time.
class VLTDictionary : public VLTDictionaryBase {
 public:
  VLTDictionary();  // empty
  explicit VLTDictionary(CFMutableDictionaryRef source);
  explicit VLTDictionary(CFDictionaryRef source);
  VLTDictionary(const VLTDictionary&) = delete;
  ~VLTDictionary() override;

  VLTDictionary& operator=(const VLTDictionary& other);  // replaceContents
  operator const void*() const { return dictionary; }    // borrowed

  // A mutable copy, or an empty dictionary of counted objects for null. The caller releases it.
  static CFMutableDictionaryRef newDictionary(CFDictionaryRef source);

  CFIndex getCount() const;

  // Becomes a copy of `other`'s dictionary. What was held before is NOT released: call
  // destroyContents first, or replaceContents instead.
  void copyContents(const VLTDictionary& other);
  void destroyContents();  // afterwards there is no dictionary, and setting does nothing
  void replaceContents(const VLTDictionary& other);  // itself: nothing

 protected:
  OSStatus _set(CFStringRef key, const void* value) override;
  OSStatus _get(CFStringRef key, const void*& value) override;
  OSStatus _remove(CFStringRef key) override;
  const void* _get(CFStringRef key) override;
  void _eraseExtant() override;
  void _addContentsOfDictionary(CFDictionaryRef source) override;
  CFDictionaryRef _getDictForSave() override;
  void _releaseDictAfterSave(CFDictionaryRef saved) override;

  // Sets the pair in the dictionary that `context` is.
  static void copyToDestDict(const void* key, const void* value, void* context);

 private:
  CFMutableDictionaryRef dictionary;  // null after destroyContents
};
