#pragma once

#include "plist/dictionary_base.h"

// VLTDictionary keeps its entries in memory, in one mutable dictionary that it owns. It copies the
// dictionary that it is made from; the values themselves are shared. One thread at a time.
class VLTDictionary : public VLTDictionaryBase {
 public:
  VLTDictionary();  // empty
  explicit VLTDictionary(CFMutableDictionaryRef source);
  explicit VLTDictionary(CFDictionaryRef source);
  VLTDictionary(const VLTDictionary&) = delete;
  ~VLTDictionary() override;

  VLTDictionary& operator=(const VLTDictionary& other);  // replaceContents
  operator const void*() const { return dictionary; }    // borrowed

  // Returns a mutable copy, or for null an empty dictionary of counted objects. The caller releases
  // it.
  static CFMutableDictionaryRef newDictionary(CFDictionaryRef source);

  CFIndex getCount() const;

  // Holds a copy of `other`'s dictionary from now on. Meant: does NOT release the dictionary that
  // it held before, because callers rely on it being gone already. Call destroyContents first, or
  // use replaceContents.
  void copyContents(const VLTDictionary& other);
  void destroyContents();  // afterwards there is no dictionary, and setters do nothing
  void replaceContents(const VLTDictionary& other);  // does nothing if `other` is this object

 protected:
  OSStatus _set(CFStringRef key, const void* value) override;
  OSStatus _get(CFStringRef key, const void*& value) override;
  OSStatus _remove(CFStringRef key) override;
  const void* _get(CFStringRef key) override;
  void _eraseExtant() override;
  void _addContentsOfDictionary(CFDictionaryRef source) override;
  OSStatus _takeContents(CFDictionaryRef source, bool merge) override;
  CFDictionaryRef _getDictForSave() override;
  void _releaseDictAfterSave(CFDictionaryRef saved) override;

  // Sets the pair in the dictionary that `context` points to.
  static void copyToDestDict(const void* key, const void* value, void* context);

 private:
  struct Taking;

  // Returns true if there was no memory for the dictionary, so that setting and loading fail. After
  // destroyContents it returns false, and they do nothing.
  bool IsLost() const { return dictionary == nullptr && !isDestroyed; }

  CFMutableDictionaryRef dictionary;  // null after destroyContents, and without memory
  bool isDestroyed = false;
};
