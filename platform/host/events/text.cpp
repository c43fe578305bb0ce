#include "platform/host/events/text.h"

#include <CoreFoundation/CFString.h>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/text_codec.h"

namespace {

// Script and language before international text; both 0 for Roman.
constexpr size_t kIntlHeaderSize = 4;

struct TextType {
  DescType type;
  CFStringEncoding encoding;
};
constexpr TextType kTextTypes[] = {
    {typeChar, kCFStringEncodingMacRoman},
    {typeUnicodeText, kCFStringEncodingUnicode},
    {typeUTF16ExternalRepresentation, kCFStringEncodingUTF16BE},
    {typeUTF8Text, kCFStringEncodingUTF8},
    {typeIntlText, kCFStringEncodingMacRoman},
    {typeStyledText, kCFStringEncodingMacRoman},
};

const TextType* FindTextType(DescType type) {
  for (const TextType& row : kTextTypes) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

// Bytes in an encoding, borrowed.
struct EncodedText {
  CFStringEncoding encoding;
  const UInt8* bytes;
  size_t size;
};

bool ViewText(const HostAEItem& item, EncodedText* out) {
  const TextType* row = FindTextType(item.type);
  if (row == nullptr) return false;
  if (item.form == HostAEForm::kRecord) {
    const HostAEItem* text = item.items.Find(keyAEText);
    if (text == nullptr || text->type != typeChar) return false;
    *out = {row->encoding, text->Bytes(), text->size};
    return true;
  }
  *out = {row->encoding, item.Bytes(), item.size};
  if (item.type != typeIntlText) return true;
  // The only script with an encoding here is Roman.
  if (item.size < kIntlHeaderSize || HostLoadBig16(out->bytes) != smRoman) return false;
  out->bytes += kIntlHeaderSize;
  out->size -= kIntlHeaderSize;
  return true;
}

OSStatus MakeStyledText(const UInt8* bytes, size_t size, HostAEItem* out) {
  HostAEItem text;
  text.key = keyAEText;
  const OSStatus err = text.SetBytes(typeChar, bytes, size);
  if (err != 0) return err;
  out->SetEmpty(typeStyledText, HostAEForm::kRecord);
  if (out->items.Append(text)) return 0;
  text.Release();
  out->SetNull();
  return memFullErr;
}

OSStatus MakeText(const EncodedText& from, DescType toType, HostAEItem* out) {
  const TextType* to = FindTextType(toType);
  std::vector<UInt8> bytes;
  if (to == nullptr ||
      !HostConvertText(from.encoding, from.bytes, from.size, to->encoding, bytes)) {
    return errAECoercionFail;
  }
  if (toType == typeStyledText) return MakeStyledText(bytes.data(), bytes.size(), out);
  if (toType == typeIntlText) bytes.insert(bytes.begin(), kIntlHeaderSize, 0);
  return out->SetBytes(toType, bytes.data(), bytes.size());
}

}  // namespace

bool HostIsTextType(DescType type) { return FindTextType(type) != nullptr; }

bool HostTextToMacRoman(const HostAEItem& item, std::vector<UInt8>* out) {
  EncodedText text;
  return ViewText(item, &text) &&
         HostConvertText(text.encoding, text.bytes, text.size, kCFStringEncodingMacRoman, *out);
}

OSStatus HostTextToText(const HostAEItem& from, DescType toType, HostAEItem* out) {
  EncodedText text;
  return ViewText(from, &text) ? MakeText(text, toType, out) : OSStatus{errAECoercionFail};
}

OSStatus HostTextFromMacRoman(const void* bytes, size_t size, DescType toType, HostAEItem* out) {
  return MakeText({kCFStringEncodingMacRoman, static_cast<const UInt8*>(bytes), size}, toType, out);
}
