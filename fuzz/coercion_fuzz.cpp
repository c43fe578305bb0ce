#include <CoreServices/CoreServices.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

#include "platform/host/events/storage.h"

// Coerces arbitrary bytes to every type. The first byte of the input chooses the type that they
// have.

namespace {

constexpr DescType kTypes[] = {
    typeNull,        typeBoolean,       typeTrue,
    typeFalse,       typeSInt16,        typeUInt16,
    typeSInt32,      typeUInt32,        typeSInt64,
    typeUInt64,      typeExtended,      type128BitFloatingPoint,
    typeFixed,       typeChar,          typeIEEE32BitFloatingPoint,
    typePString,     typeCString,       typeIEEE64BitFloatingPoint,
    typeUnicodeText, typeUTF8Text,      typeUTF16ExternalRepresentation,
    typeStyledText,  typeIntlText,      typeType,
    typeEnumerated,  typeProperty,      typeProcessSerialNumber,
    typeAEList,      typeAERecord,      typeAppleEvent,
    typeAlias,       typeEncodedString, FourCC('o', 'b', 'j', ' '),
    typeWildCard,    typeBest,
};

void Require(bool condition) {
  if (!condition) abort();
}

std::string Bytes(const AEDesc& desc) {
  std::string bytes(static_cast<size_t>(AEGetDescDataSize(&desc)), 0);
  if (desc.descriptorType == typeNull) return bytes;
  Require(AEGetDescData(&desc, bytes.data(), static_cast<Size>(bytes.size())) == 0);
  return bytes;
}

bool IsReadBackExactly(DescType type) {
  return type == typeSInt16 || type == typeUInt16 || type == typeSInt32 || type == typeUInt32 ||
         type == typeSInt64 || type == typeUInt64 || type == typeFixed ||
         type == typeIEEE32BitFloatingPoint || type == typeIEEE64BitFloatingPoint;
}

// Text of a number reads back as that number.
void CheckReadBack(const AEDesc& number, const AEDesc& text) {
  AEDesc back = {typeNull, nullptr};
  Require(AECoerceDesc(&text, number.descriptorType, &back) == 0);
  Require(Bytes(back) == Bytes(number));
  AEDisposeDesc(&back);
}

void CheckCoercion(const AEDesc& source, DescType toType) {
  AEDesc result = {typeNull, nullptr};
  const OSErr err = AECoerceDesc(&source, toType, &result);
  Require(err == 0 || err == errAECoercionFail);
  if (err == 0) {
    const bool asIs = toType == typeWildCard || toType == typeBest;
    Require(result.descriptorType == (asIs ? source.descriptorType : toType));
    if (toType == typeChar && IsReadBackExactly(source.descriptorType)) {
      CheckReadBack(source, result);
    }
  }
  Require(err == 0 || result.dataHandle == nullptr);
  AEDisposeDesc(&result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  const DescType fromType = kTypes[data[0] % std::size(kTypes)];
  const auto count = static_cast<Size>(size - 1);
  AEDesc source = {typeNull, nullptr};
  if (AECreateDesc(fromType, data + 1, count, &source) == 0) {
    AEDesc list = {typeNull, nullptr};
    Require(AECreateList(nullptr, 0, false, &list) == 0 && AEPutDesc(&list, 0, &source) == 0);
    for (const DescType toType : kTypes) {
      CheckCoercion(source, toType);
      AEDesc item = {typeNull, nullptr};
      AECoerceDesc(&list, toType, &item);
      AEDisposeDesc(&item);
    }
    AEDisposeDesc(&list);
    AEDisposeDesc(&source);
  }
  Require(HostCountDescs() == 0);
  return 0;
}
