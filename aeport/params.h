#pragma once

#include <CoreServices/CoreServices.h>

#include <cstdint>

// Typed parameters: what every sender and handler puts into events and takes out of them. Each
// named function is one instance of the two templates at the top; what differs says so. Nothing is
// kept here: any thread, one event by one thread at a time.
//
// Shared contract
//   event    an event or a record; borrowed.
//   Result   0 or the Apple Event Manager's code, unchanged: errAEDescNotFound (no such parameter),
//            errAECoercionFail (no form of the wanted type), errAENotAEDesc (the null descriptor);
//            paramErr for a negative count, for one of more than 2^31 - 1 bytes, and for a null
//            pointer to what is put.
//   Getting  coerces when it must. Outputs are written on success only, unless said otherwise. A
//            null output asks only whether the value is there. A value that bears the wanted type
//            but has fewer bytes than that type leaves the rest of the output as it was: whoever
//            reads what others sent starts with a defined value.
//   Putting  copies, and replaces what is there under the keyword.

// Whether `count` elements of some size can be named by a Size in bytes.
template <class T>
bool AEParamBytes(SInt32 count, Size& bytes) {
  const int64_t wide = int64_t{count} * static_cast<int64_t>(sizeof(T));
  bytes = static_cast<Size>(wide);
  return wide >= 0 && wide <= INT32_MAX;
}

// One value.
template <class T, DescType type>
OSErr GetAEParam(const AEDesc* event, AEKeyword key, T* out) {
  return AEGetParamPtr(event, key, type, nullptr, out, sizeof(T), nullptr);
}

// An array. `count` is the capacity in elements on entry; on success it is the number of elements
// that the parameter has, also when that is more than the capacity: only the first elements are
// stored then, so a reader takes the smaller of the two.
template <class T, DescType type>
OSErr GetAEParam(const AEDesc* event, AEKeyword key, T* out, SInt32& count) {
  Size room = 0;
  if (!AEParamBytes<T>(count, room)) return paramErr;
  Size whole = 0;
  const OSErr err = AEGetParamPtr(event, key, type, nullptr, out, room, &whole);
  if (err == 0) count = whole / static_cast<Size>(sizeof(T));
  return err;
}

template <class T, DescType type>
OSErr PutAEParam(AEDesc* event, AEKeyword key, const T* value) {
  return AEPutParamPtr(event, key, type, value, sizeof(T));
}

template <class T, DescType type>
OSErr PutAEParam(AEDesc* event, AEKeyword key, const T* values, SInt32 count) {
  Size bytes = 0;
  if (!AEParamBytes<T>(count, bytes)) return paramErr;
  return AEPutParamPtr(event, key, type, values, bytes);
}

// Getting.

// Any non-zero byte is true.
OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, bool* value);
OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, unsigned char* value);  // the byte itself
OSErr GetAEShort(const AEDesc* event, AEKeyword key, SInt16* value);
OSErr GetAELong(const AEDesc* event, AEKeyword key, SInt32* value);
OSErr GetAELongLong(const AEDesc* event, AEKeyword key, SInt64* value);
OSErr GetAEOSType(const AEDesc* event, AEKeyword key, OSType* value);

// Tells only whether the parameter can be read: `value` is never written. GetAELongLong gives the
// value.
OSErr GetAEUInt64(const AEDesc* event, AEKeyword key, UInt64* value);

// Texts, into `size` bytes. paramErr for a null text or a size below 1; any other failure leaves an
// empty text.
//
// GetAECString stores at most size - 1 characters, and then the terminator BEHIND THE WHOLE TEXT,
// at the index of its full length, however short the buffer is. Never call it with a buffer that
// may be shorter than the text: it writes outside, and a text that was cut has no terminator
// inside.
OSErr GetAECString(const AEDesc* event, AEKeyword key, char* text, SInt32 size);
// Stores at most size - 1 characters. The length byte is the full length, 255 at the most: it may
// say more than was stored.
OSErr GetAEPString(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32 size);

// Arrays: `count` is as told above; bytes for a text.
OSErr GetAEText(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32& count);
OSErr GetAELongArray(const AEDesc* event, AEKeyword key, SInt32* values, SInt32& count);
OSErr GetAEShortArray(const AEDesc* event, AEKeyword key, SInt16* values, SInt32& count);

// 1 when the parameter is there, of whatever type, else 0. `exists` is not written.
SInt32 GetAEParamExists(const AEDesc* event, AEKeyword key, bool& exists);

// Putting.

OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const bool* value);
OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const unsigned char* value);
OSErr PutAEShort(AEDesc* event, AEKeyword key, const SInt16* value);
OSErr PutAELong(AEDesc* event, AEKeyword key, const SInt32* value);
OSErr PutAEInteger(AEDesc* event, AEKeyword key, const int* value);
OSErr PutAELongLong(AEDesc* event, AEKeyword key, const SInt64* value);
OSErr PutAEUInt64(AEDesc* event, AEKeyword key, const UInt64* value);  // the bytes of a signed one
OSErr PutAEFloat(AEDesc* event, AEKeyword key, const float* value);
OSErr PutAEDouble(AEDesc* event, AEKeyword key, const double* value);
OSErr PutAEOSType(AEDesc* event, AEKeyword key, const OSType* value);

// Texts travel without terminator or length byte.
OSErr PutAECString(AEDesc* event, AEKeyword key, const char* text);
OSErr PutAEPString(AEDesc* event, AEKeyword key, const unsigned char* text);

OSErr PutAEText(AEDesc* event, AEKeyword key, const unsigned char* text, SInt32 count);
OSErr PutAELongArray(AEDesc* event, AEKeyword key, const SInt32* values, SInt32 count);
OSErr PutAEShortArray(AEDesc* event, AEKeyword key, const SInt16* values, SInt32 count);

// A four-character code as eight lower-case hexadecimal digits and a terminator. paramErr, with
// nothing written, for a null text or fewer than 9 bytes.
OSStatus OSTypeToLongCString(OSType type, char* text, UInt32 size);
