#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "plist/stack_refs.h"

class VLTDictionary;

// VLTDictionaryBase is the one typed table of settings: string keys, property-list values, typed
// setters and getters, and whole tables from and to property lists. Where the entries are kept is a
// subclass's matter: VLTDictionary has them in memory, VLTPreferences in the preferences. One
// thread at a time.
//
// Keys are temporaries made of a C string (Mac Roman) or of a four-character code, whose text
// includes the single quotes: the key of 'SmoN' has six characters.
//
// Results  0, errAEDescNotFound (no such key), paramErr (a value of another type, a bad argument),
//          fnfErr (any failure of a stream or of a property list), memFullErr, mFulErr.
class VLTDictionaryBase {
 public:
  using Allocator = char* (*)(SInt32 size);

  VLTDictionaryBase() = default;
  VLTDictionaryBase(const VLTDictionaryBase&) = delete;
  VLTDictionaryBase& operator=(const VLTDictionaryBase&) = delete;
  virtual ~VLTDictionaryBase() = default;

  // `out` is a string of `text`, which the caller releases, and `created` true; when there can be
  // none (null text), `out` is `fallback`, not retained, and `created` false.
  static void initStr(const char* text, CFStringRef& out, CFStringRef fallback, bool& created);

  // The memory that the ...Alloc getters and saving hand out unless told otherwise. Null for a
  // negative size and when there is no memory; null is freed harmlessly.
  static char* PtrAllocator(SInt32 size);
  static void PtrFree(char* block);

  // Setting replaces. A value that could not be made is null, and what that does is the storage's
  // matter: VLTDictionary ignores it, VLTPreferences removes the key.
  OSStatus remove(StackCFString key);  // also an absent key
  OSStatus setBoolean(StackCFString key, bool value);
  OSStatus setBoolean(StackCFString key, unsigned char value);
  OSStatus setShort(StackCFString key, SInt16 value);
  OSStatus setInteger(StackCFString key, int value);
  OSStatus setLong(StackCFString key, SInt32 value);
  OSStatus setLongLong(StackCFString key, SInt64 value);
  OSStatus setFloat(StackCFString key, float value);
  OSStatus setDouble(StackCFString key, double value);
  OSStatus setString(StackCFString key, CFStringRef value);
  OSStatus setCString(StackCFString key, const char* value);
  OSStatus setPString(StackCFString key, ConstStr255Param value);
  OSStatus setData(StackCFString key, const unsigned char* bytes, UInt32 length);  // copies
  OSStatus setDictionary(StackCFString key, CFDictionaryRef value);
  OSStatus setDictionary(StackCFString key, VLTDictionary& value);  // shared, not copied
  OSStatus setArray(StackCFString key, CFArrayRef value);

  // Outputs stay as they were when the result is errAEDescNotFound, or paramErr for a wrong type.
  // References are borrowed: valid until the entry changes.
  OSStatus getBoolean(StackCFString key, bool& value);
  OSStatus getBoolean(StackCFString key, unsigned char& value);
  // paramErr, with the nearest value stored, for a number that the type cannot carry exactly.
  OSStatus getShort(StackCFString key, SInt16& value);
  OSStatus getInteger(StackCFString key, int& value);
  OSStatus getLong(StackCFString key, SInt32& value);
  OSStatus getLongLong(StackCFString key, SInt64& value);
  OSStatus getFloat(StackCFString key, float& value);
  OSStatus getDouble(StackCFString key, double& value);
  // The number as `type`, the nearest value if need be; `storedSize` is the byte size of the number
  // as it is stored. paramErr also when that is SMALLER than `bufferSize`. Writes as many bytes as
  // `type` has, whatever `bufferSize` says: the buffer must have room for them.
  OSStatus getNumberValue(StackCFString key, CFNumberType type, void* buffer, UInt32 bufferSize,
                          UInt32& storedSize);

  OSStatus getString(StackCFString key, CFStringRef& value);
  // Mac Roman, cut to `size` bytes with a terminator; `length` is what was stored. With a null
  // buffer or size 0 it is the number of characters, the terminator not counted.
  OSStatus getCString(StackCFString key, char* buffer, UInt32 size, UInt32& length);
  // Into memory of `alloc`, null for PtrAllocator; the caller frees it. memFullErr without memory.
  OSStatus getCStringAlloc(StackCFString key, char*& buffer, Allocator alloc);

  // Of any value: one that is no data object has no bytes. At most `size` bytes (read as a signed
  // number), `length` of them; with a null buffer or size 0 it is the number of bytes there are.
  OSStatus getData(StackCFString key, char* buffer, UInt32 size, UInt32& length);
  // As getCStringAlloc, without a terminator; mFulErr without memory.
  OSStatus getDataAlloc(StackCFString key, char*& buffer, Allocator alloc);

  OSStatus getDictionary(StackCFString key, CFDictionaryRef& value);
  OSStatus getDictionary(StackCFString key, VLTDictionary& value);  // becomes a copy
  OSStatus getArray(StackCFString key, CFArrayRef& value);
  // `numberType` may be null, and is stored for a number only.
  OSStatus getType(StackCFString key, UInt32& typeId, CFNumberType* numberType);

  // Puts a property list's entries in, of any form that can be read; unless `merge` is set, all
  // others are removed. A failure changes nothing. A list that is no dictionary is not refused: it
  // has no entries.
  //
  // The forms that take a file's record DO NOTHING and return 0 for a good one, and fnfErr for one
  // that names no file; callers rely on it. Use a path or an address.
  OSStatus load(FSSpec* file, bool merge);
  OSStatus load(FSRef* file, bool merge);
  OSStatus load(const char* path, bool merge);  // bytes as in a shell; null or "" is paramErr
  OSStatus load(CFURLRef file, bool merge);
  OSStatus load(const char* bytes, UInt32 length, bool merge);
  OSStatus loadFromXML(CFDataRef data, bool merge);                       // null is paramErr
  OSStatus loadFromXML(unsigned char* bytes, SInt32 length, bool merge);  // null or 0 is paramErr

  // Writes all entries; paramErr when there is no table to write. A file is replaced as a whole,
  // with its mode and through a symbolic link, and stays as it was on failure.
  //
  // The forms that take a file's record do nothing for a good one, as above. They and the path form
  // write XML, whatever `format` says.
  OSStatus save(FSSpec* file, CFPropertyListFormat format);
  OSStatus save(FSRef* file, CFPropertyListFormat format);
  OSStatus save(const char* path, CFPropertyListFormat format);
  OSStatus save(CFURLRef file, CFPropertyListFormat format);
  // Into memory that the caller frees with PtrFree. Only forms that are UTF-8 text come back: for
  // the binary one nothing is stored, with result 0.
  OSStatus save(char** buffer, UInt32* length, CFPropertyListFormat format);
  OSStatus saveAsXML(CFDataRef& out);  // the caller releases it

 protected:
  // What a storage supplies. All the above stands on these.
  virtual OSStatus _set(CFStringRef key, const void* value) = 0;
  virtual OSStatus _get(CFStringRef key,
                        const void*& value) = 0;  // whether it is there, or paramErr
  virtual OSStatus _remove(CFStringRef key) = 0;
  virtual const void* _get(CFStringRef key) = 0;  // null when absent
  virtual void _eraseExtant() = 0;
  virtual void _addContentsOfDictionary(CFDictionaryRef source) = 0;  // of equal keys, its values
  // A dictionary of all entries, to be handed back after use; null when there is none.
  virtual CFDictionaryRef _getDictForSave() = 0;
  virtual void _releaseDictAfterSave(CFDictionaryRef dictionary) = 0;

  // The exact value of a number.
  template <class T, CFNumberType type>
  OSStatus getNumber(StackCFString& key, T& value);

 private:
  OSStatus SetNumber(StackCFString& key, CFNumberType type, const void* value);
  OSStatus Find(StackCFString& key, const void*& value);
  OSStatus FindTyped(StackCFString& key, CFTypeID type, const void*& value);
  template <class Ref>
  OSStatus GetReference(StackCFString& key, CFTypeID type, Ref& value);

  OSStatus LoadFromStream(CFReadStreamRef stream, bool merge);
  OSStatus TakeList(CFPropertyListRef list, bool merge);
  template <class Write>
  OSStatus WithDictionary(Write write);
};
