#pragma once

#include <CoreServices/MacErrors.h>
#include <CoreServices/MacTypes.h>

// The Apple Event Manager's data: descriptors (a typed value), lists and records of them, and Apple
// Events (a record of parameters plus attributes).
//
// An AEDesc holds a type code and the number of its storage. A copy of an AEDesc has the same
// number and does not copy the data. The caller that receives a descriptor from a call below
// disposes of it once. Disposing of it again, or of a copy, is harmless: a number that is not in
// use any more gives errAENotAEDesc.
//
// Any thread, but only one thread at a time may use a descriptor.
//
// Contracts shared by all calls:
//   - a descriptor that a call writes ("dst") is output only: a former value is not disposed of,
//     and a failing call sets it to the null descriptor, { typeNull, null };
//   - data that is put is copied; sizes are in bytes; a negative size, or a null pointer with a
//     size above 0, gives paramErr;
//   - values are in the CPU's byte order, except typeUTF16ExternalRepresentation, and typeExtended
//     and type128BitFloatingPoint, whose first byte is the most significant;
//   - a null descriptor in place of a container gives errAENotAEDesc; another kind of descriptor
//     gives errAEWrongDataType, or errAENotAppleEvent where an event is required;
//   - containers nest at most 64 deep: putting one that would nest deeper gives errAEBadListItem;
//   - the data size of a container is 0;
//   - without memory the result is memFullErr.

using DescType = ResType;
using AEKeyword = FourCharCode;
using AEEventClass = FourCharCode;
using AEEventID = FourCharCode;
using AEReturnID = SInt16;
using AETransactionID = SInt32;
using AEArrayType = SInt8;

// A number, not an address; null for the null descriptor.
using AEDataStorage = struct OpaqueAEDataStorage*;

struct AEDesc {
  DescType descriptorType;
  AEDataStorage dataHandle;
};
using AEAddressDesc = AEDesc;
using AEDescList = AEDesc;
using AERecord = AEDesc;
using AppleEvent = AEDesc;

struct AEKeyDesc {
  AEKeyword descKey;
  AEDesc descContent;
};

enum : AEArrayType {
  kAEDataArray = 0,
  kAEPackedArray = 1,
  kAEHandleArray = 2,
  kAEDescArray = 3,
  kAEKeyDescArray = 4,
};

// Descriptor types, with the data of each. A value may have any number of bytes whatever its type
// is: a typeSInt32 of 4n bytes contains n integers.
enum : DescType {
  typeNull = FourCC('n', 'u', 'l', 'l'),      // none
  typeWildCard = FourCC('*', '*', '*', '*'),  // only as a desired type: no coercion
  typeBest = FourCC('b', 'e', 's', 't'),      // only as a desired type: no coercion

  typeBoolean = FourCC('b', 'o', 'o', 'l'),  // 1 byte, 0 or 1
  typeTrue = FourCC('t', 'r', 'u', 'e'),     // none
  typeFalse = FourCC('f', 'a', 'l', 's'),    // none

  typeSInt16 = FourCC('s', 'h', 'o', 'r'),
  typeSMInt = typeSInt16,
  typeShortInteger = typeSInt16,
  typeUInt16 = FourCC('u', 's', 'h', 'r'),
  typeSInt32 = FourCC('l', 'o', 'n', 'g'),
  typeInteger = typeSInt32,
  typeLongInteger = typeSInt32,
  typeUInt32 = FourCC('m', 'a', 'g', 'n'),
  typeMagnitude = typeUInt32,
  typeSInt64 = FourCC('c', 'o', 'm', 'p'),
  typeComp = typeSInt64,
  typeUInt64 = FourCC('u', 'c', 'o', 'm'),
  typeIEEE32BitFloatingPoint = FourCC('s', 'i', 'n', 'g'),
  typeSMFloat = typeIEEE32BitFloatingPoint,
  typeShortFloat = typeIEEE32BitFloatingPoint,
  typeIEEE64BitFloatingPoint = FourCC('d', 'o', 'u', 'b'),
  typeFloat = typeIEEE64BitFloatingPoint,
  typeLongFloat = typeIEEE64BitFloatingPoint,
  type128BitFloatingPoint = FourCC('l', 'd', 'b', 'l'),  // 16 bytes, quadruple precision
  typeExtended = FourCC('e', 'x', 't', 'e'),             // 10 bytes
  typeDecimalStruct = FourCC('d', 'e', 'c', 'm'),
  typeFixed = FourCC('f', 'i', 'x', 'd'),  // 4 bytes, 16.16

  typeChar = FourCC('T', 'E', 'X', 'T'),     // Mac Roman, no terminator
  typePString = FourCC('p', 's', 't', 'r'),  // length byte, Mac Roman
  typeCString = FourCC('c', 's', 't', 'r'),  // Mac Roman, NUL
  typeUnicodeText = FourCC('u', 't', 'x', 't'),
  typeUTF16ExternalRepresentation = FourCC('u', 't', '1', '6'),  // big-endian unless a mark leads
  typeUTF8Text = FourCC('u', 't', 'f', '8'),
  typeStyledUnicodeText = FourCC('s', 'u', 't', 'x'),
  typeEncodedString = FourCC('e', 'n', 'c', 's'),
  typeStyledText = FourCC('S', 'T', 'X', 'T'),  // a record with keyAEText
  typeIntlText =
      FourCC('i', 't', 'x', 't'),  // script, language (2 bytes each, most significant first), text

  typeType = FourCC('t', 'y', 'p', 'e'),
  typeEnumerated = FourCC('e', 'n', 'u', 'm'),
  typeEnumeration = typeEnumerated,
  typeProperty = FourCC('p', 'r', 'o', 'p'),
  typeKeyword = FourCC('k', 'e', 'y', 'w'),
  typeApplSignature = FourCC('s', 'i', 'g', 'n'),

  typeProcessSerialNumber = FourCC('p', 's', 'n', ' '),  // two UInt32, high then low
  typeKernelProcessID = FourCC('k', 'p', 'i', 'd'),      // 4 bytes
  typeMachPort = FourCC('p', 'o', 'r', 't'),             // 4 bytes, a port name of this task
  typeApplicationBundleID = FourCC('b', 'u', 'n', 'd'),  // UTF-8
  typeApplicationURL = FourCC('a', 'p', 'r', 'l'),
  typeAppParameters = FourCC('a', 'p', 'p', 'a'),

  typeAlias = FourCC('a', 'l', 'i', 's'),
  typeFSRef = FourCC('f', 's', 'r', 'f'),
  typeFSS = FourCC('f', 's', 's', ' '),
  typeFileURL = FourCC('f', 'u', 'r', 'l'),

  typeAEList = FourCC('l', 'i', 's', 't'),
  typeAERecord = FourCC('r', 'e', 'c', 'o'),
  typeAppleEvent = FourCC('a', 'e', 'v', 't'),
};

// Keywords of the record in a value of typeStyledText.
enum : AEKeyword {
  keyAEText = FourCC('k', 't', 'x', 't'),
  keyAEStyles = FourCC('k', 's', 't', 'y'),
};

inline void AEInitializeDesc(AEDesc* desc) { *desc = {typeNull, nullptr}; }

#pragma GCC visibility push(default)
extern "C" {

// Descriptors.

// Makes a descriptor of a value. `type` may be any code but that of a container; typeNull gives the
// null descriptor.
OSErr AECreateDesc(DescType type, const void* data, Size size, AEDesc* dst);
// Sets `*desc` to the null descriptor. Returns 0.
OSErr AEDisposeDesc(AEDesc* desc);
OSErr AEDuplicateDesc(const AEDesc* source, AEDesc* dst);
// Returns a value's size; 0 for a container or the null descriptor.
Size AEGetDescDataSize(const AEDesc* desc);
// Copies at most maxSize bytes of a value. Returns errAEWrongDataType for a container and
// errAENotAEDesc for the null descriptor.
OSErr AEGetDescData(const AEDesc* desc, void* buffer, Size maxSize);
// Replaces the contents of a descriptor; copies of the AEDesc see them, too. The null descriptor
// becomes a new one. A failure changes nothing.
OSErr AEReplaceDescData(DescType type, const void* data, Size size, AEDesc* desc);

// Coerces a value. To its own type, typeWildCard or typeBest, makes a copy. Returns
// errAECoercionFail if the value has no form of the wanted type (wrong size, out of range, a
// character that cannot be encoded).
OSErr AECoerceDesc(const AEDesc* source, DescType toType, AEDesc* dst);
OSErr AECoercePtr(DescType type, const void* data, Size size, DescType toType, AEDesc* dst);

// Lists. An index is 1-based; reading at an index outside 1..count gives errAEDescNotFound.

// `factoring` is accepted for compatibility and has no effect.
OSErr AECreateList(const void* factoring, Size factoredSize, Boolean isRecord, AEDescList* dst);
// Items of a list or record, parameters of an event.
OSErr AECountItems(const AEDescList* list, SInt32* count);
// Index 0 or count + 1 appends, 1..count replaces, any other gives errAEIllegalIndex.
OSErr AEPutPtr(AEDescList* list, SInt32 index, DescType type, const void* data, Size size);
OSErr AEPutDesc(AEDescList* list, SInt32 index, const AEDesc* desc);
// Reading into a buffer: copies at most maxSize bytes and stores the full size of the value, after
// coercion. A value that does not fit is cut, which is not an error. Any output may be null; a
// failure changes none. A null buffer or a maxSize of 0 gives only type and size. A negative
// maxSize gives paramErr.
OSErr AEGetNthPtr(const AEDescList* list, SInt32 index, DescType desiredType, AEKeyword* key,
                  DescType* type, void* buffer, Size maxSize, Size* actualSize);
OSErr AEGetNthDesc(const AEDescList* list, SInt32 index, DescType desiredType, AEKeyword* key,
                   AEDesc* dst);
// Stores the type and size that the item has. Either output may be null.
OSErr AESizeOfNthItem(const AEDescList* list, SInt32 index, DescType* type, Size* size);
OSErr AEDeleteItem(AEDescList* list, SInt32 index);

// Parameters of an event, fields of a record. Putting replaces an existing value under the keyword;
// reading a missing one gives errAEDescNotFound. Reading by pointer is as for AEGetNthPtr.
OSErr AEPutParamPtr(AppleEvent* event, AEKeyword key, DescType type, const void* data, Size size);
OSErr AEPutParamDesc(AppleEvent* event, AEKeyword key, const AEDesc* desc);
OSErr AEGetParamPtr(const AppleEvent* event, AEKeyword key, DescType desiredType,
                    DescType* actualType, void* buffer, Size maxSize, Size* actualSize);
OSErr AEGetParamDesc(const AppleEvent* event, AEKeyword key, DescType desiredType, AEDesc* dst);
OSErr AESizeOfParam(const AppleEvent* event, AEKeyword key, DescType* type, Size* size);
OSErr AEDeleteParam(AppleEvent* event, AEKeyword key);

// The same calls under the names that records use.
OSErr AEPutKeyPtr(AERecord* record, AEKeyword key, DescType type, const void* data, Size size);
OSErr AEPutKeyDesc(AERecord* record, AEKeyword key, const AEDesc* desc);
OSErr AEGetKeyPtr(const AERecord* record, AEKeyword key, DescType desiredType, DescType* actualType,
                  void* buffer, Size maxSize, Size* actualSize);
OSErr AEGetKeyDesc(const AERecord* record, AEKeyword key, DescType desiredType, AEDesc* dst);
OSErr AESizeOfKeyDesc(const AERecord* record, AEKeyword key, DescType* type, Size* size);
OSErr AEDeleteKeyDesc(AERecord* record, AEKeyword key);
Boolean AECheckIsRecord(const AEDesc* desc);  // a record of any type, or an event

// Apple Events.

// Makes an event. `target` is copied and not looked up; it may be null or the null descriptor for
// an event without an address. kAutoGenerateReturnID generates a return id that differs from those
// that were generated for other existing events of this process, as long as these are fewer than
// 65534.
OSErr AECreateAppleEvent(AEEventClass eventClass, AEEventID eventID, const AEAddressDesc* target,
                         AEReturnID returnID, AETransactionID transactionID, AppleEvent* dst);
// Attributes: calls and rules are those of parameters. An attribute with a type of its own coerces
// the value that is put. Only sending sets "repq" and "esrc"; putting them gives
// errAEWrongDataType.
OSErr AEPutAttributePtr(AppleEvent* event, AEKeyword key, DescType type, const void* data,
                        Size size);
OSErr AEPutAttributeDesc(AppleEvent* event, AEKeyword key, const AEDesc* desc);
OSErr AEGetAttributePtr(const AppleEvent* event, AEKeyword key, DescType desiredType,
                        DescType* actualType, void* buffer, Size maxSize, Size* actualSize);
OSErr AEGetAttributeDesc(const AppleEvent* event, AEKeyword key, DescType desiredType, AEDesc* dst);
OSErr AESizeOfAttribute(const AppleEvent* event, AEKeyword key, DescType* type, Size* size);

// Makes a text for people (Mac Roman, no terminator) in a new handle, which the caller disposes of;
// the spelling is not a contract. After a failure *out is null.
OSStatus AEPrintDescToHandle(const AEDesc* desc, Handle* out);

}  // extern "C"
#pragma GCC visibility pop
