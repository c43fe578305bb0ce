#include "tools/values/value_types.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

using enum ValueKind;

constexpr DescType kTypeData = FourCC('t', 'd', 't', 'a');  // plain bytes

constexpr ValueType kTypes[] = {
    {"bool", typeBoolean, 1, kBool},
    {"short", typeSInt16, 2, kSigned},
    {"ushort", typeUInt16, 2, kUnsigned},
    {"long", typeSInt32, 4, kSigned},
    {"ulong", typeUInt32, 4, kUnsigned},
    {"comp", typeSInt64, 8, kSigned},
    {"ucomp", typeUInt64, 8, kUnsigned},
    {"float", typeIEEE32BitFloatingPoint, 4, kReal},
    {"double", typeIEEE64BitFloatingPoint, 8, kReal},
    {"text", typeChar, 1, kText},
    {"utf8", typeUTF8Text, 1, kUtf8},
    {"utf16", typeUnicodeText, 2, kText},
    {"type", typeType, 4, kCode},
    {"enum", typeEnumerated, 4, kCode},
    {"data", kTypeData, 1, kData},
    {nullptr, typeFixed, 4, kFixed},
    {nullptr, typeExtended, 1, kWide},
    {nullptr, type128BitFloatingPoint, 1, kWide},
    {nullptr, typeProperty, 4, kCode},
    {nullptr, typeKeyword, 4, kCode},
    {nullptr, typeApplSignature, 4, kCode},
    {nullptr, typeMachPort, 4, kUnsigned},
    {nullptr, typeKernelProcessID, 4, kSigned},
    {nullptr, typeProcessSerialNumber, 4, kWords},
    {nullptr, typePString, 1, kText},
    {nullptr, typeCString, 1, kText},
    {nullptr, typeUTF16ExternalRepresentation, 1, kText},
    {nullptr, typeIntlText, 1, kText},
    {nullptr, typeApplicationBundleID, 1, kUtf8},
    {nullptr, typeApplicationURL, 1, kUtf8},
    {nullptr, typeFileURL, 1, kUtf8},
    {nullptr, typeNull, 1, kConstant},
    {nullptr, typeTrue, 1, kConstant},
    {nullptr, typeFalse, 1, kConstant},
};

bool IsPrintable(char c) { return c >= 0x20 && c < 0x7F; }

template <class Word>
uint64_t Load(const char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

}  // namespace

bool ParseCode(std::string_view text, FourCharCode& code) {
  if (text.size() == 10 && text.starts_with("0x")) {
    FourCharCode read = 0;
    const auto [stop, error] = std::from_chars(text.data() + 2, text.data() + 10, read, 16);
    if (error != std::errc() || stop != text.data() + 10) return false;
    code = read;
    return true;
  }
  if (text.size() != 4) return false;
  for (const char c : text) {
    if (!IsPrintable(c)) return false;
  }
  code = FourCC(text[0], text[1], text[2], text[3]);
  return true;
}

std::string NotACode(std::string_view text) {
  const bool isAscii = std::all_of(text.begin(), text.end(), IsPrintable);
  if (!isAscii) return std::string(kNotACode) + " (only ASCII characters)";
  if (text.size() == 4 || text.starts_with("0x")) return kNotACode;
  return std::string(kNotACode) + "; it has " + std::to_string(text.size()) +
         (text.size() == 1 ? " character" : " characters");
}

std::string ValueTypeList() {
  std::string names;
  for (const std::string_view name : ValueTypeNames()) {
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
  return names;
}

std::string CodeText(FourCharCode code) {
  std::string text;
  bool isPlain = true;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char c = static_cast<char>(code >> shift);
    isPlain = isPlain && IsPrintable(c) && std::strchr(":=',", c) == nullptr;
    text += c;
  }
  if (isPlain) return text;
  char digits[11];
  std::snprintf(digits, sizeof digits, "0x%08x", static_cast<unsigned>(code));
  return digits;
}

std::vector<std::string_view> ValueTypeNames() {
  std::vector<std::string_view> names;
  for (const ValueType& row : kTypes) {
    if (row.name != nullptr) names.push_back(row.name);
  }
  return names;
}

const ValueType* ValueTypeNamed(std::string_view name) {
  for (const ValueType& row : kTypes) {
    if (row.name != nullptr && name == row.name) return &row;
  }
  return nullptr;
}

const ValueType* ValueTypeOf(DescType type) {
  for (const ValueType& row : kTypes) {
    if (type == row.type) return &row;
  }
  return nullptr;
}

uint64_t LoadNumber(const char* bytes, size_t width) {
  switch (width) {
    case 8:
      return Load<uint64_t>(bytes);
    case 4:
      return Load<uint32_t>(bytes);
    case 2:
      return Load<uint16_t>(bytes);
    default:
      return Load<uint8_t>(bytes);
  }
}

std::string SwappedToBig(DescType type, std::string bytes) {
  const ValueType* row = ValueTypeOf(type);
  const size_t width = row != nullptr ? row->width : 1;
  if (bytes.size() % width != 0) return bytes;
  for (size_t at = 0; at < bytes.size(); at += width) {
    uint64_t number = LoadNumber(bytes.data() + at, width);
    for (size_t i = width; i-- > 0; number >>= 8) bytes[at + i] = static_cast<char>(number);
  }
  return bytes;
}
