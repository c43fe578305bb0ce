#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "plist/stack_refs.h"

class VLTDictionary;

// VLTDictionaryBase is a typed table of settings: string keys, property-list values, typed setters
// and getters, and loading and saving as property lists. Subclasses decide where the entries are
// kept: VLTDictionary keeps them in memory, VLTPreferences in the preferences. One thread at a
// time.
//
// Keys are temporaries made from a C string (Mac Roman) or from a four-character code, whose text
// includes the single quotes: the key of 'SmoN' has six characters.
//
// Functions return 0 on success, errAEDescNotFound if there is no such key, paramErr if the value
// has another type or an argument is bad, fnfErr for any failure of a stream or a property list,
// and memFullErr or mFulErr if there is no memory.
class VLTDictionaryBase {
 public:
  using Allocator = char* (*)(SInt32 size);

  VLTDictionaryBase() = default;
  VLTDictionaryBase(const VLTDictionaryBase&) = delete;
  VLTDictionaryBase& operator=(const VLTDictionaryBase&) = delete;
  virtual ~VLTDictionaryBase() = default;

  // Stores a new string made from `text` and sets `created`; the caller releases the string. If no
  // string can be made (null text), stores `fallback`, not retained, and clears `created`.
  static void initStr(const char* text, CFStringRef& out, CFStringRef fallback, bool& created);

  // Allocates the memory that saving and, by default, the ...Alloc getters hand out. Returns null
  // for a negative size and if there is no memory. PtrFree ignores null.
  static char* PtrAllocator(SInt32 size);
  static void PtrFree(char* block);

  // A setter replaces an existing value. The storage decides what a null value does: VLTDictionary
  // changes nothing, VLTPreferences removes the key. If there is no memory for the key or the
  // value, the setter returns memFullErr and the entry stays.
  OSStatus remove(StackCFString key);  // returns 0 for an absent key, too
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

  // A getter leaves its outputs unchanged if it returns errAEDescNotFound, or paramErr for a wrong
  // type. References are borrowed: they are valid until the entry changes.
  OSStatus getBoolean(StackCFString key, bool& value);
  OSStatus getBoolean(StackCFString key, unsigned char& value);
  // These return paramErr and store the nearest value if the type cannot carry the number exactly.
  OSStatus getShort(StackCFString key, SInt16& value);
  OSStatus getInteger(StackCFString key, int& value);
  OSStatus getLong(StackCFString key, SInt32& value);
  OSStatus getLongLong(StackCFString key, SInt64& value);
  OSStatus getFloat(StackCFString key, float& value);
  OSStatus getDouble(StackCFString key, double& value);
  // Stores the number as `type`, or the nearest value, and its stored byte size in `storedSize`.
  // Meant: returns paramErr if the stored size is SMALLER than `bufferSize`, and writes as many
  // bytes as `type` has whatever `bufferSize` is, because callers pass the size of `type`. The
  // buffer must have room for them.
  OSStatus getNumberValue(StackCFString key, CFNumberType type, void* buffer, UInt32 bufferSize,
                          UInt32& storedSize);

  OSStatus getString(StackCFString key, CFStringRef& value);
  // Stores the text as Mac Roman, cut to `size` bytes including the NUL, and its length in
  // `length`. With a null buffer or size 0, stores the number of characters, without the NUL,
  // instead.
  OSStatus getCString(StackCFString key, char* buffer, UInt32 size, UInt32& length);
  // Stores the text in memory from `alloc` (null: PtrAllocator), which the caller frees. Returns
  // memFullErr if there is no memory.
  OSStatus getCStringAlloc(StackCFString key, char*& buffer, Allocator alloc);

  // Copies at most `size` bytes and stores their number in `length`; with a null buffer or size 0,
  // stores the full size instead. A value that is not a data object counts as empty. A `size` of
  // 2^31 or more copies nothing.
  OSStatus getData(StackCFString key, char* buffer, UInt32 size, UInt32& length);
  // As getCStringAlloc, without a NUL. Returns mFulErr if there is no memory.
  OSStatus getDataAlloc(StackCFString key, char*& buffer, Allocator alloc);

  OSStatus getDictionary(StackCFString key, CFDictionaryRef& value);
  OSStatus getDictionary(StackCFString key, VLTDictionary& value);  // copies the dictionary
  OSStatus getArray(StackCFString key, CFArrayRef& value);
  // Stores the type id of the value and, if it is a number and `numberType` is not null, its type.
  OSStatus getType(StackCFString key, UInt32& typeId, CFNumberType* numberType);

  // Adds the entries of a property list in any form that can be read. Unless `merge` is set,
  // removes all others. A failure changes nothing. A list that is not a dictionary counts as empty.
  //
  // Meant: the FSSpec and FSRef forms never load anything. They return 0 when the file exists and
  // fnfErr when it does not; callers rely on that. To load a file, pass a path or a CFURL.
  OSStatus load(FSSpec* file, bool merge);
  OSStatus load(FSRef* file, bool merge);
  OSStatus load(const char* path, bool merge);  // paramErr for null or ""
  OSStatus load(CFURLRef file, bool merge);
  OSStatus load(const char* bytes, UInt32 length, bool merge);
  OSStatus loadFromXML(CFDataRef data, bool merge);                       // paramErr for null
  OSStatus loadFromXML(unsigned char* bytes, SInt32 length, bool merge);  // paramErr for null or 0

  // Writes all entries. Returns paramErr if there is no table to write. A file is replaced as a
  // whole and keeps its mode and its symbolic links; after a failure the old file is there.
  //
  // Meant: the FSSpec and FSRef forms do nothing if the file exists, as above, and they and the
  // path form write XML whatever `format` says; callers rely on that.
  OSStatus save(FSSpec* file, CFPropertyListFormat format);
  OSStatus save(FSRef* file, CFPropertyListFormat format);
  OSStatus save(const char* path, CFPropertyListFormat format);
  OSStatus save(CFURLRef file, CFPropertyListFormat format);
  // Stores the list in memory that the caller frees with PtrFree. Only text is handed back: for the
  // binary form returns 0 and stores nothing.
  OSStatus save(char** buffer, UInt32* length, CFPropertyListFormat format);
  OSStatus saveAsXML(CFDataRef& out);  // the caller releases it

 protected:
  // A subclass supplies these. All functions above use only these.
  virtual OSStatus _set(CFStringRef key, const void* value) = 0;
  virtual OSStatus _get(CFStringRef key,
                        const void*& value) = 0;  // 0 if the key is present, else paramErr
  virtual OSStatus _remove(CFStringRef key) = 0;
  virtual const void* _get(CFStringRef key) = 0;  // null when absent
  virtual void _eraseExtant() = 0;
  // Adds all entries of `source`, which replace those with equal keys.
  virtual void _addContentsOfDictionary(CFDictionaryRef source) = 0;
  // Does the last step of loading: erases everything unless `merge` is set, then adds `source`. A
  // storage that can run out of memory in between overrides it and returns memFullErr with nothing
  // changed.
  virtual OSStatus _takeContents(CFDictionaryRef source, bool merge);
  // Returns a dictionary of all entries, to be handed back after use, or null if there is none.
  virtual CFDictionaryRef _getDictForSave() = 0;
  virtual void _releaseDictAfterSave(CFDictionaryRef dictionary) = 0;

  // Stores a number's exact value; else the nearest one, with paramErr.
  template <class T, CFNumberType type>
  OSStatus getNumber(StackCFString& key, T& value);

 private:
  OSStatus Set(StackCFString& key, CFTypeRef value, bool isLost = false);
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
