#include "platform/host/events/types.h"

#include <cstring>

#include "platform/host/base/byte_order.h"

namespace {

template <class Word, Word (*swap)(Word)>
void SwapWords(void* to, const void* from, size_t size) {
  auto* target = static_cast<uint8_t*>(to);
  auto* source = static_cast<const uint8_t*>(from);
  for (size_t at = 0; at < size; at += sizeof(Word)) {
    Word word;
    memcpy(&word, source + at, sizeof word);
    word = swap(word);
    memcpy(target + at, &word, sizeof word);
  }
}

}  // namespace

bool HostIsValueType(DescType type) {
  switch (type) {
    case typeNull:
    case typeWildCard:
    case typeBest:
    case typeBoolean:
    case typeTrue:
    case typeFalse:
    case type128BitFloatingPoint:
    case typeExtended:
    case typeDecimalStruct:
    case typeChar:
    case typePString:
    case typeCString:
    case typeUTF16ExternalRepresentation:
    case typeUTF8Text:
    case typeStyledUnicodeText:
    case typeEncodedString:
    case typeIntlText:
    case typeApplicationBundleID:
    case typeApplicationURL:
    case typeAlias:
    case typeFSRef:
    case typeFSS:
    case typeFileURL:
      return true;
    default:
      return HostScalarWidth(type) > 1;
  }
}

size_t HostScalarWidth(DescType type) {
  switch (type) {
    case typeSInt16:
    case typeUInt16:
    case typeUnicodeText:
      return 2;
    case typeSInt32:
    case typeUInt32:
    case typeIEEE32BitFloatingPoint:
    case typeFixed:
    case typeType:
    case typeEnumerated:
    case typeProperty:
    case typeKeyword:
    case typeApplSignature:
    case typeMachPort:
    case typeKernelProcessID:
    case typeProcessSerialNumber:  // two words of 4
      return 4;
    case typeSInt64:
    case typeUInt64:
    case typeIEEE64BitFloatingPoint:
      return 8;
    default:
      return 1;
  }
}

namespace {

// The width by which a value is swapped: 1 when it is not.
size_t SwapWidth(DescType type, size_t size) {
  if (kHostIsBigEndian) return 1;
  const size_t width = HostScalarWidth(type);
  return (size & (width - 1)) == 0 ? width : 1;
}

}  // namespace

bool HostSwapIsCopy(DescType type, size_t size) { return SwapWidth(type, size) == 1; }

void HostSwapValue(DescType type, void* to, const void* from, size_t size) {
  switch (SwapWidth(type, size)) {
    case 2:
      return SwapWords<uint16_t, HostSwap16>(to, from, size);
    case 4:
      return SwapWords<uint32_t, HostSwap32>(to, from, size);
    case 8:
      return SwapWords<uint64_t, HostSwap64>(to, from, size);
    default:
      if (to != from && size > 0) memcpy(to, from, size);
  }
}
