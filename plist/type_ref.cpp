#include "plist/type_ref.h"

#include <algorithm>
#include <cstring>

constinit const UInt32 gCFNumberSizes[kCFNumberMaxType] = {1, 2, 4, 8, 4, 8, 1,
                                                           2, 4, 4, 8, 4, 8, 4};

constinit const char* const gCFNumberTypeNames[kCFNumberMaxType] = {
    "CFNumberSInt8",    "CFNumberSInt16", "CFNumberSInt32", "CFNumberSInt64", "CFNumberFloat32",
    "CFNumberFloat64",  "CFNumberChar",   "CFNumberShort",  "CFNumberInt",    "CFNumberLong",
    "CFNumberLongLong", "CFNumberFloat",  "CFNumberDouble", "CFNumberCFIndex"};

namespace {

// The last type that a value is converted to. Meant: kCFNumberCFIndexType is refused, although the
// tables above have a row for it.
constexpr CFNumberType kLastConvertedType = kCFNumberDoubleType;

template <class Word>
void StoreWord(Word word, void* out) {
  std::memcpy(out, &word, sizeof word);
}

// Stores what stands for a value that could not be carried as `type`.
void StoreNone(CFNumberType type, void* out) {
  if (type == kCFNumberFloatType) return StoreWord(UInt32{0x7FC00000}, out);
  if (type == kCFNumberDoubleType) return StoreWord(UInt64{0x7FF8000000000000}, out);
  switch (gCFNumberSizes[type - 1]) {
    case 1:
      return StoreWord(UInt8{0x80}, out);
    case 2:
      return StoreWord(UInt16{0x8000}, out);
    case 4:
      return StoreWord(UInt32{0x80000000}, out);
    default:
      return StoreWord(UInt64{0x8000000000000000}, out);
  }
}

}  // namespace

const void** VLTCFReleaseReference(const void** slot) {
  if (slot == nullptr || *slot == nullptr) return slot;
  const void* const old = *slot;
  *slot = nullptr;
  CFRelease(old);
  return slot;
}

const void** VLTCFAssignReference(const void** slot, const void* object) {
  if (slot == nullptr || *slot == object) return slot;
  CFRetain(object);
  const void* const old = *slot;
  *slot = object;
  CFRelease(old);
  return slot;
}

const void* VLTCFAdjustRetainCount(const void** slot, SInt32 delta) {
  if (slot == nullptr || *slot == nullptr) return nullptr;
  const void* const object = *slot;
  if (delta >= 0) {
    for (SInt32 i = 0; i < delta; i++) CFRetain(object);
    return object;
  }
  UInt32 count = 0 - static_cast<UInt32>(delta);  // the smallest delta has no negative
  const auto references = static_cast<UInt32>(CFGetRetainCount(object));
  if (count >= references) {
    count = references;
    *slot = nullptr;
  }
  for (UInt32 i = 0; i < count; i++) CFRelease(object);
  // Meant: null also while the slot still holds the object, because callers rely on it.
  return nullptr;
}

const void* VLTCFTypeRef::Assign(const void* object, UInt32 optionWord) {
  VLTCFAssignReference(slot, object);
  options = optionWord;
  return object;
}

const void* VLTCFTypeRef::Assume(const void* object, UInt32 optionWord) {
  VLTCFReleaseReference(slot);
  *slot = object;
  options = optionWord;
  return object;
}

bool VLTCFTypeRef::Equals(const void* other) const {
  if (*slot == nullptr || other == nullptr) return *slot == other;
  return CFEqual(*slot, other);
}

CFStringRef VLTCFTypeRef::CopyCFTypeDescription() const {
  return CFCopyTypeIDDescription(GetCFTypeID());
}

CFStringRef VLTCFTypeRef::CopyCFDescription() const {
  return *slot != nullptr ? CFCopyDescription(*slot) : nullptr;
}

CFAllocatorRef VLTCFTypeRef::GetCFAllocator() const {
  return *slot != nullptr ? CFGetAllocator(*slot) : kCFAllocatorDefault;
}

CFStringRef VLTCFString::CopySubstring(CFIndex start, CFIndex length,
                                       CFAllocatorRef allocator) const {
  if (reference == nullptr) return nullptr;
  return CFStringCreateWithSubstring(allocator, String(), CFRangeMake(start, length));
}

OSStatus VLTCFString::GetPascalString(unsigned char* buffer, CFIndex bufferSize,
                                      CFStringEncoding encoding) const {
  if (reference == nullptr) return paramErr;
  return CFStringGetPascalString(String(), buffer, bufferSize, encoding) ? 0 : paramErr;
}

OSStatus VLTCFString::GetCString(char* buffer, CFIndex bufferSize,
                                 CFStringEncoding encoding) const {
  if (reference == nullptr) return paramErr;
  return CFStringGetCString(String(), buffer, bufferSize, encoding) ? 0 : paramErr;
}

VLTCFDictionary::VLTCFDictionary(CFMutableDictionaryRef taken, UInt32 optionWord)
    : VLTCFTypeRef(reference, optionWord) {
  reference = taken;
}

CFMutableDictionaryRef VLTCFDictionary::PreflightModify() {
  return static_cast<CFMutableDictionaryRef>(const_cast<void*>(reference));
}

void VLTCFDictionary::AddValue(const void* key, const void* value) {
  CFMutableDictionaryRef dictionary = PreflightModify();
  if (dictionary != nullptr) CFDictionaryAddValue(dictionary, key, value);
}

void VLTCFDictionary::SetValue(const void* key, const void* value) {
  CFMutableDictionaryRef dictionary = PreflightModify();
  if (dictionary != nullptr) CFDictionarySetValue(dictionary, key, value);
}

VLTCFTypeDictionary::VLTCFTypeDictionary()
    : VLTCFDictionary(
          CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                    &kCFTypeDictionaryValueCallBacks),
          0) {}

VLTCFNumber::VLTCFNumber(const void* value, CFNumberType type, UInt32 optionWord,
                         CFAllocatorRef allocator)
    : VLTCFTypeRef(reference, optionWord) {
  reference = CFNumberCreate(allocator, type, value);
}

CFNumberRef VLTCFNumber::DynamicCast(const void* object) {
  if (object == nullptr) return nullptr;
  if (CFGetTypeID(object) == CFNumberGetTypeID()) return static_cast<CFNumberRef>(object);
  // Meant: releases an object that it refuses, because callers rely on it.
  CFRelease(object);
  return nullptr;
}

SInt32 VLTCFNumber::CFNumberGetValue(CFNumberRef number, CFNumberType type, void* out,
                                     const void* defaultValue, SInt32 nullResult,
                                     SInt32 lossyResult) {
  if (number == nullptr) return nullResult;
  if (type < kCFNumberSInt8Type || type > kLastConvertedType) return paramErr;
  if (::CFNumberGetValue(number, type, out)) return 0;
  if (defaultValue != nullptr) {
    std::memcpy(out, defaultValue, gCFNumberSizes[type - 1]);
  } else {
    StoreNone(type, out);
  }
  return lossyResult;
}

template <class T>
T VLTCFNumber::ValueAs(CFNumberType type) const {
  T value = 0;
  CFNumberGetValue(*this, type, &value, nullptr, errAEDescNotFound, errAECoercionFail);
  return value;
}

template <class T>
SInt32 VLTCFNumber::ResultAs(CFNumberType type, T& out, SInt32 nullResult) const {
  return CFNumberGetValue(*this, type, &out, nullptr, nullResult, errAECoercionFail);
}

SInt32 VLTCFNumber::AsSInt8(SInt8& out, SInt32 nullResult) const {
  return ResultAs(kCFNumberSInt8Type, out, nullResult);
}
SInt32 VLTCFNumber::AsSInt16(SInt16& out, SInt32 nullResult) const {
  return ResultAs(kCFNumberSInt16Type, out, nullResult);
}
SInt32 VLTCFNumber::AsSInt32(SInt32& out, SInt32 nullResult) const {
  return ResultAs(kCFNumberSInt32Type, out, nullResult);
}
SInt32 VLTCFNumber::AsSInt64(SInt64& out, SInt32 nullResult) const {
  return ResultAs(kCFNumberSInt64Type, out, nullResult);
}

SInt8 VLTCFNumber::AsSInt8() const { return ValueAs<SInt8>(kCFNumberSInt8Type); }
SInt16 VLTCFNumber::AsSInt16() const { return ValueAs<SInt16>(kCFNumberSInt16Type); }
SInt32 VLTCFNumber::AsSInt32() const { return ValueAs<SInt32>(kCFNumberSInt32Type); }
float VLTCFNumber::AsFloat32() const { return ValueAs<float>(kCFNumberFloat32Type); }
double VLTCFNumber::AsFloat64() const { return ValueAs<double>(kCFNumberFloat64Type); }

SInt64 VLTCFNumber::AsSInt64() const {
  // Meant: callers know the 8-bit value in the most significant byte.
  const auto byte = static_cast<UInt8>(ValueAs<SInt8>(kCFNumberSInt8Type));
  return static_cast<SInt64>(UInt64{byte} << 56);
}

CFIndex VLTCFNumber::AsCFIndex() const {
  // Meant: ValueAs refuses this type, and callers rely on the neutral result.
  return ValueAs<CFIndex>(kCFNumberCFIndexType);
}

void dprintCFNumberRef(const void* number) {
  if (CFGetTypeID(number) != CFNumberGetTypeID()) return;
  const auto value = static_cast<CFNumberRef>(number);
  [[maybe_unused]] const CFNumberType type = CFNumberGetType(value);
  [[maybe_unused]] const CFIndex size = CFNumberGetByteSize(value);
}
