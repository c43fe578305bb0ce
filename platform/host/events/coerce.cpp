#include "platform/host/events/coerce.h"

#include <string>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"
#include "platform/host/events/codec.h"
#include "platform/host/events/number.h"
#include "platform/host/events/text.h"

namespace {

using Item = HostAEItem;

// Each rule converts `from` into `*out`, which is a null value without a key. The type of `from` is
// one that the rule's row names and differs from the wanted one. A rule that fails returns
// errAECoercionFail.

OSStatus Fail() { return errAECoercionFail; }

template <class Value>
OSStatus Make(DescType type, Value value, Item* out) {
  return out->SetBytes(type, &value, sizeof value);
}

bool ReadCode(const Item& from, UInt32* code) {
  if (from.size != sizeof *code) return false;
  memcpy(code, from.Bytes(), sizeof *code);
  return true;
}

bool ReadBoolean(const Item& from, bool* value) {
  if (from.size != 1) return false;
  *value = from.Bytes()[0] != 0;
  return true;
}

OSStatus WriteNumber(const HostNumber& number, DescType toType, Item* out) {
  uint8_t bytes[kHostNumberSize];
  size_t size = 0;
  return HostWriteNumber(number, toType, bytes, &size) ? out->SetBytes(toType, bytes, size)
                                                       : Fail();
}

OSStatus NumberToNumber(const Item& from, DescType toType, Item* out) {
  HostNumber number;
  if (!HostReadNumber(from.type, from.Bytes(), from.size, &number)) return Fail();
  return WriteNumber(number, toType, out);
}

OSStatus TextToNumber(const Item& from, DescType toType, Item* out) {
  std::vector<UInt8> text;
  HostNumber number;
  if (!HostTextToMacRoman(from, &text) ||
      !HostParseNumber(reinterpret_cast<const char*>(text.data()), text.size(), toType, &number)) {
    return Fail();
  }
  return WriteNumber(number, toType, out);
}

OSStatus NumberToText(const Item& from, DescType toType, Item* out) {
  std::string text;
  if (!HostFormatNumber(from.type, from.Bytes(), from.size, &text)) return Fail();
  return HostTextFromMacRoman(text.data(), text.size(), toType, out);
}

OSStatus ConstantToBoolean(const Item& from, DescType toType, Item* out) {
  if (from.size != 0) return Fail();
  return Make<UInt8>(toType, from.type == typeTrue, out);
}

OSStatus EnumToBoolean(const Item& from, DescType toType, Item* out) {
  UInt32 code = 0;
  if (!ReadCode(from, &code) || (code != typeTrue && code != typeFalse)) return Fail();
  return Make<UInt8>(toType, code == typeTrue, out);
}

OSStatus ShortToBoolean(const Item& from, DescType toType, Item* out) {
  SInt16 value = 0;
  if (from.size != sizeof value) return Fail();
  memcpy(&value, from.Bytes(), sizeof value);
  if (value != 0 && value != 1) return Fail();
  return Make<UInt8>(toType, value == 1, out);
}

OSStatus BooleanToEnum(const Item& from, DescType toType, Item* out) {
  bool value = false;
  if (!ReadBoolean(from, &value)) return Fail();
  return Make<UInt32>(toType, value ? typeTrue : typeFalse, out);
}

OSStatus BooleanToConstant(const Item& from, DescType toType, Item* out) {
  bool value = false;
  if (!ReadBoolean(from, &value) || value != (toType == typeTrue)) return Fail();
  return out->SetBytes(toType, nullptr, 0);
}

OSStatus BooleanToNumber(const Item& from, DescType toType, Item* out) {
  bool value = false;
  if (!ReadBoolean(from, &value)) return Fail();
  const SInt16 number = value;
  Item asShort;
  asShort.SetBorrowed(typeSInt16, &number, sizeof number);
  if (toType == typeSInt16) return out->CopyFrom(asShort);
  return NumberToNumber(asShort, toType, out);
}

OSStatus CodeToCode(const Item& from, DescType toType, Item* out) {
  UInt32 code = 0;
  return ReadCode(from, &code) ? Make(toType, code, out) : Fail();
}

OSStatus CodeToText(const Item& from, DescType toType, Item* out) {
  UInt32 code = 0;
  if (!ReadCode(from, &code)) return Fail();
  UInt8 characters[sizeof code];
  HostStoreBig32(characters, code);
  return HostTextFromMacRoman(characters, sizeof characters, toType, out);
}

OSStatus TextToCode(const Item& from, DescType toType, Item* out) {
  std::vector<UInt8> text;
  if (!HostTextToMacRoman(from, &text) || text.size() != sizeof(UInt32)) return Fail();
  return Make<UInt32>(toType, HostLoadBig32(text.data()), out);
}

OSStatus CharToPascal(const Item& from, DescType toType, Item* out) {
  if (from.size > 255) return Fail();
  UInt8 text[256] = {static_cast<UInt8>(from.size)};
  if (from.size > 0) memcpy(text + 1, from.Bytes(), from.size);
  return out->SetBytes(toType, text, from.size + size_t{1});
}

OSStatus PascalToChar(const Item& from, DescType toType, Item* out) {
  if (from.size == 0 || from.Bytes()[0] > from.size - 1) return Fail();
  return out->SetBytes(toType, from.Bytes() + 1, from.Bytes()[0]);
}

OSStatus CharToC(const Item& from, DescType toType, Item* out) {
  const std::string text(reinterpret_cast<const char*>(from.Bytes()), from.size);
  return out->SetBytes(toType, text.c_str(), text.size() + 1);
}

OSStatus CToChar(const Item& from, DescType toType, Item* out) {
  if (from.size == 0 || from.Bytes()[from.size - 1] != 0) return Fail();
  return out->SetBytes(toType, from.Bytes(), from.size - 1);
}

OSStatus NullToList(const Item&, DescType toType, Item* out) {
  out->SetEmpty(toType, HostAEForm::kList);
  return 0;
}

OSStatus AnyToList(const Item& from, DescType toType, Item* out) {
  if (from.Height() >= kHostNestingLimit) return errAEBadListItem;
  Item copy;
  copy.key = typeWildCard;
  const OSStatus err = copy.CopyFrom(from);
  if (err != 0) return err;
  out->SetEmpty(toType, HostAEForm::kList);
  if (out->items.Append(copy)) return 0;
  copy.Release();
  out->SetNull();
  return memFullErr;
}

OSStatus Retag(const Item& from, DescType toType, Item* out) {
  const OSStatus err = out->CopyFrom(from);
  if (err == 0) out->type = toType;
  return err;
}

// The types that a row is for.
using Types = bool (*)(DescType);
template <DescType... codes>
bool OneOf(DescType type) {
  return ((type == codes) || ...);
}
bool Anything(DescType) { return true; }
bool RecordCode(DescType type) { return HostFormFits(HostAEForm::kRecord, type); }

constexpr Types Numbers = HostIsNumberType;
constexpr Types Texts = HostIsTextType;
constexpr Types Codes =
    OneOf<typeType, typeEnumerated, typeProperty, typeKeyword, typeApplSignature>;
constexpr Types CodesWithText = OneOf<typeType, typeEnumerated>;
constexpr Types Constants = OneOf<typeTrue, typeFalse>;

// The first row that fits decides; if none does, the coercion fails. The comment after a row names
// the case in which the row's function fails. Every scalar must have the size of its type. A list
// of one item counts as that item.
struct Row {
  Types from;
  Types to;
  OSStatus (*rule)(const Item& from, DescType toType, Item* out);
};
constexpr Row kRows[] = {
    {OneOf<typeNull>, OneOf<typeAEList>, NullToList},
    {Anything, OneOf<typeAEList>, AnyToList},  // nested too deep
    {Numbers, Numbers, NumberToNumber},        // does not fit after rounding
    {Texts, Numbers, TextToNumber},            // not a decimal number, or does not fit
    {Numbers, Texts, NumberToText},            // not finite
    {Texts, Texts, HostTextToText},            // not well formed, or not encodable
    {Constants, OneOf<typeBoolean>, ConstantToBoolean},
    {OneOf<typeEnumerated>, OneOf<typeBoolean>, EnumToBoolean},  // other than true, fals
    {OneOf<typeSInt16>, OneOf<typeBoolean>, ShortToBoolean},     // other than 0, 1
    {OneOf<typeBoolean>, OneOf<typeEnumerated>, BooleanToEnum},
    {OneOf<typeBoolean>, Constants, BooleanToConstant},  // not the one that matches
    {OneOf<typeBoolean>, Numbers, BooleanToNumber},
    {Codes, Codes, CodeToCode},
    {CodesWithText, Texts, CodeToText},
    {Texts, CodesWithText, TextToCode},                   // not four Mac Roman characters
    {OneOf<typeChar>, OneOf<typePString>, CharToPascal},  // over 255 bytes
    {OneOf<typePString>, OneOf<typeChar>, PascalToChar},  // shorter than its length byte says
    {OneOf<typeChar>, OneOf<typeCString>, CharToC},
    {OneOf<typeCString>, OneOf<typeChar>, CToChar},  // no NUL at the end
    {RecordCode, RecordCode, Retag},
};

OSStatus ApplyTable(const Item& from, DescType toType, Item* out) {
  for (const Row& row : kRows) {
    if (!row.from(from.type) || !row.to(toType)) continue;
    // A record may have a type code that is otherwise unknown. A value with such a code has no
    // rule.
    if (row.rule == Retag && from.form != HostAEForm::kRecord) continue;
    return row.rule(from, toType, out);
  }
  return Fail();
}

}  // namespace

OSStatus HostCoerce(const HostAEItem& source, DescType toType, HostAEItem* out) {
  out->key = typeWildCard;
  out->SetNull();
  const HostAEItem* from = &source;
  while (!HostTakesAsIs(from->type, toType)) {
    if (from->form != HostAEForm::kList) {
      return HostGuard(OSStatus{memFullErr}, [&] { return ApplyTable(*from, toType, out); });
    }
    if (from->items.Count() != 1) return Fail();
    from = from->items.begin();
  }
  return out->CopyFrom(*from);
}
