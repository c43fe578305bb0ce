#pragma once

#include <CoreServices/CoreServices.h>

#include <cstdint>

// Typed parameters, which senders and handlers put into events and get from them. Each named
// function is an instance of the templates at the top; differences are stated at the function. The
// functions keep no state and may be called from any thread, but only one thread at a time may use
// an event.
//
// Shared contract
//   event    an event or a record; borrowed.
//   Result   0 or the Apple Event Manager's status, unchanged: errAEDescNotFound (no such
//            parameter), errAECoercionFail (it cannot be coerced to the type), errAENotAEDesc (the
//            null descriptor). paramErr if the count is negative or means more than 2^31 - 1 bytes,
//            or if the pointer to the value to put is null.
//   Getting  coerces the value if it has another type. Writes its output on success only, unless
//            stated otherwise. A null output only checks that the value can be read. When the
//            parameter has the wanted type but fewer bytes, only those bytes of the output are
//            written: initialise the output before reading what another process sent.
//   Putting  copies the value and replaces an existing parameter under the keyword.

// Computes the size of `count` elements in bytes. Returns false if a Size cannot hold it.
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

// An array. On entry `count` is the capacity of `out` in elements. On success it becomes the number
// of elements in the parameter, which may be more than the capacity: then only the first elements
// are stored, so use the smaller of the two numbers.
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

// The first form gives true for any non-zero byte, the second the byte itself.
OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, bool* value);
OSErr GetAEBoolean(const AEDesc* event, AEKeyword key, unsigned char* value);
OSErr GetAEShort(const AEDesc* event, AEKeyword key, SInt16* value);
OSErr GetAELong(const AEDesc* event, AEKeyword key, SInt32* value);
OSErr GetAELongLong(const AEDesc* event, AEKeyword key, SInt64* value);
OSErr GetAEOSType(const AEDesc* event, AEKeyword key, OSType* value);

// Meant: checks that the parameter can be read but never writes `value`, because callers rely on
// their variable staying as it is. GetAELongLong reads the value.
OSErr GetAEUInt64(const AEDesc* event, AEKeyword key, UInt64* value);

// Texts, into a buffer of `size` bytes. Return paramErr for a null buffer or a size below 1. Any
// other failure leaves an empty text.
//
// Meant: GetAECString stores at most size - 1 characters, but writes the NUL at the index of the
// text's full length, even beyond the buffer, because callers rely on it. Never pass a buffer that
// may be shorter than the text.
OSErr GetAECString(const AEDesc* event, AEKeyword key, char* text, SInt32 size);
// Stores at most size - 1 characters. Meant: the length byte is the text's full length, at most
// 255, even if fewer characters were stored, because callers rely on it.
OSErr GetAEPString(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32 size);

// Arrays, with `count` as for the array template. The elements of a text are bytes.
OSErr GetAEText(const AEDesc* event, AEKeyword key, unsigned char* text, SInt32& count);
OSErr GetAELongArray(const AEDesc* event, AEKeyword key, SInt32* values, SInt32& count);
OSErr GetAEShortArray(const AEDesc* event, AEKeyword key, SInt16* values, SInt32& count);

// Returns 1 if the parameter exists, with any type, else 0. Meant: `exists` is never written,
// because callers rely on the result alone.
SInt32 GetAEParamExists(const AEDesc* event, AEKeyword key, bool& exists);

// Putting.

OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const bool* value);
OSErr PutAEBoolean(AEDesc* event, AEKeyword key, const unsigned char* value);
OSErr PutAEShort(AEDesc* event, AEKeyword key, const SInt16* value);
OSErr PutAELong(AEDesc* event, AEKeyword key, const SInt32* value);
OSErr PutAEInteger(AEDesc* event, AEKeyword key, const int* value);
OSErr PutAELongLong(AEDesc* event, AEKeyword key, const SInt64* value);
OSErr PutAEUInt64(AEDesc* event, AEKeyword key,
                  const UInt64* value);  // as a signed number of the same bytes
OSErr PutAEFloat(AEDesc* event, AEKeyword key, const float* value);
OSErr PutAEDouble(AEDesc* event, AEKeyword key, const double* value);
OSErr PutAEOSType(AEDesc* event, AEKeyword key, const OSType* value);

// Texts are put without the NUL or the length byte, as TEXT: their bytes count as Mac Roman. Put
// UTF-8 with AEPutParamPtr and typeUTF8Text; as TEXT it would arrive as other characters.
OSErr PutAECString(AEDesc* event, AEKeyword key, const char* text);
OSErr PutAEPString(AEDesc* event, AEKeyword key, const unsigned char* text);

OSErr PutAEText(AEDesc* event, AEKeyword key, const unsigned char* text, SInt32 count);
OSErr PutAELongArray(AEDesc* event, AEKeyword key, const SInt32* values, SInt32 count);
OSErr PutAEShortArray(AEDesc* event, AEKeyword key, const SInt16* values, SInt32 count);

// Writes a four-character code as eight lower-case hexadecimal digits and a NUL. Returns paramErr
// and writes nothing if `text` is null or has fewer than 9 bytes.
OSStatus OSTypeToLongCString(OSType type, char* text, UInt32 size);
