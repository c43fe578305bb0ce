#include "aeport/params.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

static_assert(sizeof(bool) == 1 && sizeof(int) == 4 && sizeof(float) == 4 && sizeof(double) == 8);

OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, bool* value) {
  UInt8 byte = 0;
  const OSErr err = GetAEParam<UInt8, typeBoolean>(event, key, &byte);
  if (err == 0 && value != nullptr) *value = byte != 0;
  return err;
}

OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, unsigned char* value) {
  return GetAEParam<UInt8, typeBoolean>(event, key, value);
}

OSErr GetAEShort(const AEDesc* event, AEKeyword key, SInt16* value) {
  return GetAEParam<SInt16, typeSInt16>(event, key, value);
}

OSErr GetAELong(const AEDesc* event, AEKeyword key, SInt32* value) {
  return GetAEParam<SInt32, typeSInt32>(event, key, value);
}

OSErr GetAELongLong(const AEDesc* event, AEKeyword key, SInt64* value) {
  return GetAEParam<SInt64, typeSInt64>(event, key, value);
}

OSErr GetAEOSType(const AEDesc* event, AEKeyword key, OSType* value) {
  return GetAEParam<OSType, typeType>(event, key, value);
}

OSErr GetAEUInt64(const AEDesc* event, AEKeyword key, UInt64*) {
  UInt64 dropped = 0;  // Meant: `value` stays as it is, because callers rely on that.
  return GetAEParam<UInt64, typeSInt64>(event, key, &dropped);
}

OSErr GetAECString(const AEDesc* event, AEKeyword key, char* text, SInt32 size) {
  if (text == nullptr || size < 1) return paramErr;
  text[0] = 0;
  SInt32 length = size - 1;
  const OSErr err = GetAEParam<char, typeChar>(event, key, text, length);
  // Meant: at the full length, even beyond the buffer, because callers rely on it.
  if (err == 0) text[length] = 0;
  return err;
}

OSErr GetAEPString(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32 size) {
  if (text == nullptr || size < 1) return paramErr;
  text[0] = 0;
  SInt32 length = size - 1;
  const OSErr err = GetAEText(event, key, text + 1, length);
  // Meant: the length of the parameter, not of what was stored, because callers rely on it.
  if (err == 0) text[0] = static_cast<unsigned char>(std::min<SInt32>(length, 255));
  return err;
}

OSErr GetAEText(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32& count) {
  return GetAEParam<unsigned char, typeChar>(event, key, text, count);
}

OSErr GetAELongArray(const AEDesc* event, AEKeyword key, SInt32* values, SInt32& count) {
  return GetAEParam<SInt32, typeSInt32>(event, key, values, count);
}

OSErr GetAEShortArray(const AEDesc* event, AEKeyword key, SInt16* values, SInt32& count) {
  return GetAEParam<SInt16, typeSInt16>(event, key, values, count);
}

SInt32 GetAEParamExists(const AEDesc* event, AEKeyword key, bool&) {
  AEDesc found = {typeNull, nullptr};
  if (AEGetParamDesc(event, key, typeWildCard, &found) != 0) return 0;
  AEDisposeDesc(&found);
  return 1;
}

OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const bool* value) {
  if (value == nullptr) return paramErr;
  const UInt8 byte = *value ? 1 : 0;
  return PutAEParam<UInt8, typeBoolean>(event, key, &byte);
}

OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const unsigned char* value) {
  return PutAEParam<UInt8, typeBoolean>(event, key, value);
}

OSErr PutAEShort(AEDesc* event, AEKeyword key, const SInt16* value) {
  return PutAEParam<SInt16, typeSInt16>(event, key, value);
}

OSErr PutAELong(AEDesc* event, AEKeyword key, const SInt32* value) {
  return PutAEParam<SInt32, typeSInt32>(event, key, value);
}

OSErr PutAEInteger(AEDesc* event, AEKeyword key, const int* value) {
  return PutAEParam<int, typeSInt32>(event, key, value);
}

OSErr PutAELongLong(AEDesc* event, AEKeyword key, const SInt64* value) {
  return PutAEParam<SInt64, typeSInt64>(event, key, value);
}

OSErr PutAEUInt64(AEDesc* event, AEKeyword key, const UInt64* value) {
  return PutAEParam<UInt64, typeSInt64>(event, key, value);
}

OSErr PutAEFloat(AEDesc* event, AEKeyword key, const float* value) {
  return PutAEParam<float, typeIEEE32BitFloatingPoint>(event, key, value);
}

OSErr PutAEDouble(AEDesc* event, AEKeyword key, const double* value) {
  return PutAEParam<double, typeIEEE64BitFloatingPoint>(event, key, value);
}

OSErr PutAEOSType(AEDesc* event, AEKeyword key, const OSType* value) {
  return PutAEParam<OSType, typeType>(event, key, value);
}

OSErr PutAECString(AEDesc* event, AEKeyword key, const char* text) {
  const size_t length = text != nullptr ? std::strlen(text) : 0;
  if (text == nullptr || length > INT32_MAX) return paramErr;
  return PutAEParam<char, typeChar>(event, key, text, static_cast<SInt32>(length));
}

OSErr PutAEPString(AEDesc* event, AEKeyword key, const unsigned char* text) {
  if (text == nullptr) return paramErr;
  return PutAEText(event, key, text + 1, text[0]);
}

OSErr PutAEText(AEDesc* event, AEKeyword key, const unsigned char* text, SInt32 count) {
  return PutAEParam<unsigned char, typeChar>(event, key, text, count);
}

OSErr PutAELongArray(AEDesc* event, AEKeyword key, const SInt32* values, SInt32 count) {
  return PutAEParam<SInt32, typeSInt32>(event, key, values, count);
}

OSErr PutAEShortArray(AEDesc* event, AEKeyword key, const SInt16* values, SInt32 count) {
  return PutAEParam<SInt16, typeSInt16>(event, key, values, count);
}

OSStatus OSTypeToLongCString(OSType type, char* text, UInt32 size) {
  constexpr UInt32 kNeeded = 9;  // eight digits and the NUL
  if (text == nullptr || size < kNeeded) return paramErr;
  std::snprintf(text, kNeeded, "%08" PRIx32, type);
  return 0;
}
