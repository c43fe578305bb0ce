#include "plist/dictionary_base.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "plist/dictionary.h"
#include "util/cf_strings.h"

void VLTDictionaryBase::initStr(const char* text, CFStringRef& out, CFStringRef fallback,
                                bool& created) {
  out = CStringToCFString(text);
  created = out != nullptr;
  if (!created) out = fallback;
}

char* VLTDictionaryBase::PtrAllocator(SInt32 size) {
  return size >= 0 ? new (std::nothrow) char[static_cast<size_t>(size)] : nullptr;
}

void VLTDictionaryBase::PtrFree(char* block) { delete[] block; }

OSStatus VLTDictionaryBase::remove(StackCFString key) {
  return key.IsLost() ? OSStatus{memFullErr} : _remove(key);
}

// `isLost` is true if there was no memory to make the value.
OSStatus VLTDictionaryBase::Set(StackCFString& key, CFTypeRef value, bool isLost) {
  return key.IsLost() || isLost ? OSStatus{memFullErr} : _set(key, value);
}

OSStatus VLTDictionaryBase::SetNumber(StackCFString& key, CFNumberType type, const void* value) {
  const StackCFNumber number(type, value);
  return Set(key, number, CFTypeRef(number) == nullptr);
}

OSStatus VLTDictionaryBase::setBoolean(StackCFString key, bool value) {
  return Set(key, value ? kCFBooleanTrue : kCFBooleanFalse);
}
OSStatus VLTDictionaryBase::setBoolean(StackCFString key, unsigned char value) {
  return Set(key, value != 0 ? kCFBooleanTrue : kCFBooleanFalse);
}
OSStatus VLTDictionaryBase::setShort(StackCFString key, SInt16 value) {
  return SetNumber(key, kCFNumberShortType, &value);
}
OSStatus VLTDictionaryBase::setInteger(StackCFString key, int value) {
  return SetNumber(key, kCFNumberIntType, &value);
}
OSStatus VLTDictionaryBase::setLong(StackCFString key, SInt32 value) {
  return SetNumber(key, kCFNumberLongType, &value);
}
OSStatus VLTDictionaryBase::setLongLong(StackCFString key, SInt64 value) {
  return SetNumber(key, kCFNumberLongLongType, &value);
}
OSStatus VLTDictionaryBase::setFloat(StackCFString key, float value) {
  return SetNumber(key, kCFNumberFloatType, &value);
}
OSStatus VLTDictionaryBase::setDouble(StackCFString key, double value) {
  return SetNumber(key, kCFNumberDoubleType, &value);
}
OSStatus VLTDictionaryBase::setString(StackCFString key, CFStringRef value) {
  return Set(key, value);
}
OSStatus VLTDictionaryBase::setCString(StackCFString key, const char* value) {
  const StackCFString string(value);
  return Set(key, string, string.IsLost());
}
OSStatus VLTDictionaryBase::setPString(StackCFString key, ConstStr255Param value) {
  const StackCFPascalString string(value);
  return Set(key, string, string.IsLost());
}
OSStatus VLTDictionaryBase::setData(StackCFString key, const unsigned char* bytes, UInt32 length) {
  const StackCFData data(bytes, static_cast<CFIndex>(length));
  return Set(key, data, bytes != nullptr && CFTypeRef(data) == nullptr);
}
OSStatus VLTDictionaryBase::setDictionary(StackCFString key, CFDictionaryRef value) {
  return Set(key, value);
}
OSStatus VLTDictionaryBase::setDictionary(StackCFString key, VLTDictionary& value) {
  return Set(key, value);
}
OSStatus VLTDictionaryBase::setArray(StackCFString key, CFArrayRef value) {
  return Set(key, value);
}

OSStatus VLTDictionaryBase::Find(StackCFString& key, const void*& value) {
  if (key.IsLost()) return memFullErr;
  const void* const found = _get(key);
  if (found == nullptr) return errAEDescNotFound;
  value = found;
  return 0;
}

OSStatus VLTDictionaryBase::FindTyped(StackCFString& key, CFTypeID type, const void*& value) {
  const void* found = nullptr;
  OSStatus err = Find(key, found);
  if (err == 0 && CFGetTypeID(found) != type) err = paramErr;
  if (err == 0) value = found;
  return err;
}

template <class Ref>
OSStatus VLTDictionaryBase::GetReference(StackCFString& key, CFTypeID type, Ref& value) {
  const void* found = nullptr;
  const OSStatus err = FindTyped(key, type, found);
  if (err == 0) value = static_cast<Ref>(found);
  return err;
}

template <class T, CFNumberType type>
OSStatus VLTDictionaryBase::getNumber(StackCFString& key, T& value) {
  CFNumberRef number = nullptr;
  const OSStatus err = GetReference(key, CFNumberGetTypeID(), number);
  if (err != 0) return err;
  return CFNumberGetValue(number, type, &value) ? 0 : paramErr;
}

OSStatus VLTDictionaryBase::getBoolean(StackCFString key, bool& value) {
  CFBooleanRef boolean = nullptr;
  const OSStatus err = GetReference(key, CFBooleanGetTypeID(), boolean);
  if (err == 0) value = CFBooleanGetValue(boolean);
  return err;
}
OSStatus VLTDictionaryBase::getBoolean(StackCFString key, unsigned char& value) {
  CFBooleanRef boolean = nullptr;
  const OSStatus err = GetReference(key, CFBooleanGetTypeID(), boolean);
  if (err == 0) value = CFBooleanGetValue(boolean);
  return err;
}
OSStatus VLTDictionaryBase::getShort(StackCFString key, SInt16& value) {
  return getNumber<SInt16, kCFNumberShortType>(key, value);
}
OSStatus VLTDictionaryBase::getInteger(StackCFString key, int& value) {
  return getNumber<int, kCFNumberIntType>(key, value);
}
OSStatus VLTDictionaryBase::getLong(StackCFString key, SInt32& value) {
  return getNumber<SInt32, kCFNumberLongType>(key, value);
}
OSStatus VLTDictionaryBase::getLongLong(StackCFString key, SInt64& value) {
  return getNumber<SInt64, kCFNumberLongLongType>(key, value);
}
OSStatus VLTDictionaryBase::getFloat(StackCFString key, float& value) {
  return getNumber<float, kCFNumberFloatType>(key, value);
}
OSStatus VLTDictionaryBase::getDouble(StackCFString key, double& value) {
  return getNumber<double, kCFNumberDoubleType>(key, value);
}

OSStatus VLTDictionaryBase::getNumberValue(StackCFString key, CFNumberType type, void* buffer,
                                           UInt32 bufferSize, UInt32& storedSize) {
  CFNumberRef number = nullptr;
  OSStatus err = GetReference(key, CFNumberGetTypeID(), number);
  const auto size = static_cast<UInt32>(CFNumberGetByteSize(number));
  // Meant: a buffer that is larger than the stored number is refused, because callers rely on it.
  if (err == 0 && size < bufferSize) err = paramErr;
  if (err != 0) return err;
  CFNumberGetValue(number, type, buffer);
  storedSize = size;
  return 0;
}

OSStatus VLTDictionaryBase::getString(StackCFString key, CFStringRef& value) {
  return GetReference(key, CFStringGetTypeID(), value);
}

OSStatus VLTDictionaryBase::getCString(StackCFString key, char* buffer, UInt32 size,
                                       UInt32& length) {
  CFStringRef string = nullptr;
  const OSStatus err = GetReference(key, CFStringGetTypeID(), string);
  if (err != 0) return err;
  if (buffer == nullptr || size == 0) {
    length = static_cast<UInt32>(CFStringGetLength(string));
    return 0;
  }
  // Of a text that does not fit, the buffer gets the beginning and a NUL.
  const auto room = static_cast<CFIndex>(std::min<UInt32>(size, INT32_MAX));
  CFStringGetCString(string, buffer, room, kCFStringEncodingMacRoman);
  length = static_cast<UInt32>(std::strlen(buffer));
  return 0;
}

OSStatus VLTDictionaryBase::getCStringAlloc(StackCFString key, char*& buffer, Allocator alloc) {
  CFStringRef string = nullptr;
  const OSStatus err = GetReference(key, CFStringGetTypeID(), string);
  if (err != 0) return err;
  const auto size = static_cast<SInt32>(static_cast<UInt32>(CFStringGetLength(string)) + 1);
  char* const block = (alloc != nullptr ? alloc : PtrAllocator)(size);
  if (block == nullptr) return memFullErr;
  CFStringGetCString(string, block, size, kCFStringEncodingMacRoman);
  buffer = block;
  return 0;
}

OSStatus VLTDictionaryBase::getData(StackCFString key, char* buffer, UInt32 size, UInt32& length) {
  const void* value = nullptr;
  const OSStatus err = Find(key, value);
  if (err != 0) return err;
  const auto data = static_cast<CFDataRef>(value);
  const CFIndex whole = CFDataGetLength(data);
  if (buffer == nullptr || size == 0) {
    length = static_cast<UInt32>(whole);
    return 0;
  }
  // Meant: `size` counts as a signed number, so a huge one copies nothing, because callers rely on
  // it.
  const SInt32 count = std::min(static_cast<SInt32>(size), whole);
  if (count > 0) std::memcpy(buffer, CFDataGetBytePtr(data), static_cast<size_t>(count));
  length = static_cast<UInt32>(count);
  return 0;
}

OSStatus VLTDictionaryBase::getDataAlloc(StackCFString key, char*& buffer, Allocator alloc) {
  const void* value = nullptr;
  const OSStatus err = Find(key, value);
  if (err != 0) return err;
  const auto data = static_cast<CFDataRef>(value);
  const CFIndex length = CFDataGetLength(data);
  char* const block = (alloc != nullptr ? alloc : PtrAllocator)(length);
  // Meant: the status differs from that of getCStringAlloc, because callers rely on it.
  if (block == nullptr) return mFulErr;
  if (length > 0) std::memcpy(block, CFDataGetBytePtr(data), static_cast<size_t>(length));
  buffer = block;
  return 0;
}

OSStatus VLTDictionaryBase::getDictionary(StackCFString key, CFDictionaryRef& value) {
  return GetReference(key, CFDictionaryGetTypeID(), value);
}

OSStatus VLTDictionaryBase::getDictionary(StackCFString key, VLTDictionary& value) {
  CFDictionaryRef dictionary = nullptr;
  const OSStatus err = GetReference(key, CFDictionaryGetTypeID(), dictionary);
  if (err == 0) value = VLTDictionary(dictionary);
  return err;
}

OSStatus VLTDictionaryBase::getArray(StackCFString key, CFArrayRef& value) {
  return GetReference(key, CFArrayGetTypeID(), value);
}

OSStatus VLTDictionaryBase::getType(StackCFString key, UInt32& typeId, CFNumberType* numberType) {
  const void* value = nullptr;
  const OSStatus err = Find(key, value);
  if (err != 0) return err;
  typeId = CFGetTypeID(value);
  if (typeId == CFNumberGetTypeID() && numberType != nullptr) {
    *numberType = CFNumberGetType(static_cast<CFNumberRef>(value));
  }
  return 0;
}
