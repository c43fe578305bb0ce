#include "tools/parameter_text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

constexpr DescType kTypeData = FourCC('t', 'd', 't', 'a');  // bytes without a meaning

bool IsPrintable(char c) { return c >= 0x20 && c < 0x7F; }

template <class Number>
bool ParseWhole(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

template <class Number>
bool PutNumber(std::string_view text, std::vector<char>& bytes) {
  Number number = 0;
  if (!ParseWhole(text, number)) return false;
  bytes.resize(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  return true;
}

bool PutBool(std::string_view text, std::vector<char>& bytes) {
  if (text != "true" && text != "false") return false;
  bytes = {static_cast<char>(text == "true")};
  return true;
}

bool PutCode(std::string_view text, std::vector<char>& bytes) {
  FourCharCode code = 0;
  if (!ParseCode(text, code)) return false;
  bytes.resize(sizeof code);
  std::memcpy(bytes.data(), &code, sizeof code);
  return true;
}

bool PutHex(std::string_view text, std::vector<char>& bytes) {
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned byte = 0;
    const auto [stop, error] = std::from_chars(text.data() + i, text.data() + i + 2, byte, 16);
    if (error != std::errc() || stop != text.data() + i + 2) return false;
    bytes.push_back(static_cast<char>(byte));
  }
  return true;
}

// Copies a value out; false when the descriptor has none of the type.
bool CopyAs(const AEDesc& source, DescType type, std::string& bytes) {
  AEDesc coerced = {typeNull, nullptr};
  if (AECoerceDesc(&source, type, &coerced) != 0) return false;
  bytes.resize(AEGetDescDataSize(&coerced));
  const bool isRead = bytes.empty() || AEGetDescData(&coerced, bytes.data(), bytes.size()) == 0;
  AEDisposeDesc(&coerced);
  return isRead;
}

// The terminal speaks UTF-8, the text descriptor Mac Roman.
bool PutText(std::string_view text, std::vector<char>& bytes) {
  AEDesc spoken = {typeNull, nullptr};
  if (AECreateDesc(typeUTF8Text, text.data(), static_cast<Size>(text.size()), &spoken) != 0) {
    return false;
  }
  std::string roman;
  const bool isRead = CopyAs(spoken, typeChar, roman);
  AEDisposeDesc(&spoken);
  bytes.assign(roman.begin(), roman.end());
  return isRead;
}

template <class Number>
std::string NumberText(std::string_view bytes) {
  Number number;
  std::memcpy(&number, bytes.data(), sizeof number);
  char text[64];
  const auto [end, error] = std::to_chars(text, text + sizeof text, number);
  return std::string(text, error == std::errc() ? end : text);
}

std::string BoolText(std::string_view bytes) { return bytes[0] != 0 ? "true" : "false"; }

std::string TypeText(std::string_view bytes) {
  FourCharCode code;
  std::memcpy(&code, bytes.data(), sizeof code);
  return CodeText(code);
}

std::string HexText(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

struct TypeRow {
  const char* name;
  DescType type;
  size_t size;  // of a value; 0: any
  bool (*put)(std::string_view text, std::vector<char>& bytes);
  std::string (*print)(std::string_view bytes);
};

constexpr TypeRow kTypes[] = {
    {"bool", typeBoolean, 1, PutBool, BoolText},
    {"short", typeSInt16, 2, PutNumber<SInt16>, NumberText<SInt16>},
    {"long", typeSInt32, 4, PutNumber<SInt32>, NumberText<SInt32>},
    {"comp", typeSInt64, 8, PutNumber<SInt64>, NumberText<SInt64>},
    {"float", typeIEEE32BitFloatingPoint, 4, PutNumber<float>, NumberText<float>},
    {"double", typeIEEE64BitFloatingPoint, 8, PutNumber<double>, NumberText<double>},
    {"text", typeChar, 0, PutText, nullptr},
    {"type", typeType, 4, PutCode, TypeText},
    {"data", kTypeData, 0, PutHex, HexText},
};

const TypeRow* RowOfName(std::string_view name) {
  for (const TypeRow& row : kTypes) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

const TypeRow* RowOfType(DescType type) {
  for (const TypeRow& row : kTypes) {
    if (type == row.type) return &row;
  }
  return nullptr;
}

// Control characters escaped, so that a value never takes more than its line.
std::string OneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    if (c == '\n' || c == '\r') {
      line += c == '\n' ? "\\n" : "\\r";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      line += "\\x" + HexText({&c, 1});
    } else {
      line += c;
    }
  }
  return line;
}

std::string PrintedDescriptor(const AEDesc& desc) {
  Handle handle = nullptr;
  if (AEPrintDescToHandle(&desc, &handle) != 0) return "?";
  std::string text(*handle, GetHandleSize(handle));
  DisposeHandle(handle);
  return OneLine(text);
}

std::string ValueText(const AEDesc& desc) {
  std::string bytes;
  SInt32 items = 0;
  if (AECountItems(&desc, &items) == 0)
    return CodeText(desc.descriptorType) + " " + PrintedDescriptor(desc);
  if (!CopyAs(desc, typeWildCard, bytes)) return "?";
  const TypeRow* row = RowOfType(desc.descriptorType);
  if (row == nullptr || (row->size != 0 && row->size != bytes.size())) {
    return "'" + CodeText(desc.descriptorType) + "'=" + HexText(bytes);
  }
  std::string utf8;
  if (row->type == typeChar && CopyAs(desc, typeUTF8Text, utf8)) return "text=" + OneLine(utf8);
  return row->name + ("=" + (row->print != nullptr ? row->print(bytes) : HexText(bytes)));
}

}  // namespace

bool ParseCode(std::string_view text, FourCharCode& code) {
  if (text.size() == 10 && text.starts_with("0x")) {
    const auto [stop, error] = std::from_chars(text.data() + 2, text.data() + 10, code, 16);
    return error == std::errc() && stop == text.data() + 10;
  }
  if (text.size() != 4) return false;
  for (const char c : text) {
    if (!IsPrintable(c)) return false;
  }
  code = FourCC(text[0], text[1], text[2], text[3]);
  return true;
}

std::string CodeText(FourCharCode code) {
  std::string text;
  bool isPlain = true;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char c = static_cast<char>(code >> shift);
    isPlain = isPlain && IsPrintable(c) && std::strchr(":='", c) == nullptr;
    text += c;
  }
  if (isPlain) return text;
  char digits[11];
  std::snprintf(digits, sizeof digits, "0x%08x", static_cast<unsigned>(code));
  return digits;
}

bool ParseParameter(std::string_view text, ParameterValue& value, std::string& problem) {
  // The key may hold a colon of its own: it has four characters or ten.
  const size_t keySize = text.starts_with("0x") && text.size() > 10 && text[10] == ':' ? 10 : 4;
  const size_t equals = text.find('=', keySize + 1);
  if (text.size() <= keySize || text[keySize] != ':' || equals == text.npos) {
    return problem = "parameters are KEY:TYPE=VALUE, not " + std::string(text), false;
  }
  const std::string_view type = text.substr(keySize + 1, equals - keySize - 1);
  const std::string_view given = text.substr(equals + 1);
  if (!ParseCode(text.substr(0, keySize), value.key)) {
    return problem = "no key: " + std::string(text.substr(0, keySize)), false;
  }
  const TypeRow* row = RowOfName(type);
  const bool isQuoted = type.size() > 2 && type.front() == '\'' && type.back() == '\'';
  if (row != nullptr) {
    value.type = row->type;
  } else if (!isQuoted || !ParseCode(type.substr(1, type.size() - 2), value.type)) {
    return problem = "no type: " + std::string(type), false;
  }
  if (!(row != nullptr ? row->put : PutHex)(given, value.bytes)) {
    return problem = "no " + std::string(type) + ": " + std::string(given), false;
  }
  return true;
}

std::vector<std::string> ParameterLines(const AEDesc& event) {
  std::vector<std::string> lines;
  SInt32 count = 0;
  AECountItems(&event, &count);
  for (SInt32 i = 1; i <= count; ++i) {
    AEKeyword key = 0;
    AEDesc desc = {typeNull, nullptr};
    if (AEGetNthDesc(&event, i, typeWildCard, &key, &desc) != 0) continue;
    lines.push_back(CodeText(key) + ":" + ValueText(desc));
    AEDisposeDesc(&desc);
  }
  return lines;
}
