#include "tools/values/parameter_text.h"

#include <charconv>
#include <cstring>

#include "tools/command_line.h"
#include "tools/values/port_text.h"

namespace {

template <class Number>
bool AppendNumber(std::string_view text, std::string& bytes) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return false;
  char raw[sizeof number];
  std::memcpy(raw, &number, sizeof number);
  bytes.append(raw, sizeof raw);
  return true;
}

bool AppendCode(std::string_view text, std::string& bytes) {
  FourCharCode code = 0;
  if (!ParseCode(text, code)) return false;
  char raw[sizeof code];
  std::memcpy(raw, &code, sizeof code);
  bytes.append(raw, sizeof raw);
  return true;
}

using Append = bool (*)(std::string_view text, std::string& bytes);

// The function that reads one number of a type; null if its values are not numbers.
Append AppendOf(const ValueType& row) {
  switch (row.kind) {
    case ValueKind::kSigned:
      if (row.width == 8) return AppendNumber<SInt64>;
      return row.width == 4 ? AppendNumber<SInt32> : AppendNumber<SInt16>;
    case ValueKind::kUnsigned:
      if (row.width == 8) return AppendNumber<UInt64>;
      return row.width == 4 ? AppendNumber<UInt32> : AppendNumber<UInt16>;
    case ValueKind::kReal:
      return row.width == 4 ? AppendNumber<float> : AppendNumber<double>;
    case ValueKind::kCode:
      return AppendCode;
    default:
      return nullptr;
  }
}

bool PutList(Append append, std::string_view text, std::string& bytes) {
  if (append(text, bytes)) return true;  // also a code with a comma in it
  while (true) {
    const size_t comma = text.find(',');
    if (!append(text.substr(0, comma), bytes)) return false;
    if (comma == text.npos) return true;
    text.remove_prefix(comma + 1);
  }
}

bool PutBool(std::string_view text, std::string& bytes) {
  bytes.assign(1, static_cast<char>(text == "true"));
  return text == "true" || text == "false";
}

bool PutHex(DescType type, std::string_view text, std::string& bytes) {
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned byte = 0;
    const auto [stop, error] = std::from_chars(text.data() + i, text.data() + i + 2, byte, 16);
    if (error != std::errc() || stop != text.data() + i + 2) return false;
    bytes += static_cast<char>(byte);
  }
  bytes = SwappedToBig(type, std::move(bytes));
  return true;
}

// The text of the terminal is UTF-8.
bool PutText(DescType type, std::string_view text, std::string& bytes) {
  if (!IsUtf8(text)) return false;
  AEDesc coerced = {typeNull, nullptr};
  if (AECoercePtr(typeUTF8Text, text.data(), static_cast<Size>(text.size()), type, &coerced) != 0) {
    return false;
  }
  bytes.resize(AEGetDescDataSize(&coerced));
  const bool isRead = AEGetDescData(&coerced, bytes.data(), static_cast<Size>(bytes.size())) == 0;
  AEDisposeDesc(&coerced);
  return isRead;
}

bool PutNamed(const ValueType& row, std::string_view text, std::string& bytes) {
  if (const Append append = AppendOf(row)) return PutList(append, text, bytes);
  switch (row.kind) {
    case ValueKind::kBool:
      return PutBool(text, bytes);
    case ValueKind::kText:
    case ValueKind::kUtf8:
      return PutText(row.type, text, bytes);
    default:
      return PutHex(row.type, text, bytes);
  }
}

const ValueType* RowOf(const std::string& code) {
  FourCharCode type = 0;
  return ParseCode(code, type) ? ValueTypeOf(type) : nullptr;
}

std::string ListText(const JsonValue::Array& values) {
  std::string text;
  for (const JsonValue& value : values) text += (text.empty() ? "" : ",") + value.Plain();
  return text;
}

// A value with its type's name, or all of its bytes with the quoted code if that could lose
// something.
std::string ValueText(const std::string& type, const JsonValue& model) {
  const ValueType* row = RowOf(type);
  const JsonValue* hex = model.Find("hex");
  const JsonValue* values = model.Find("values");
  const bool isNamed = row != nullptr && row->name != nullptr;
  if (isNamed && row->kind == ValueKind::kData) return row->name + ("=" + hex->Plain());
  if (hex != nullptr) return "'" + type + "'=" + hex->Plain();
  if (!isNamed || (values != nullptr && values->AsArray()->empty())) return "'" + type + "'=";
  const std::string start = std::string(row->name) + "=";
  if (values != nullptr) return start + ListText(*values->AsArray());
  if (const JsonValue* text = model.Find("text")) return start + OneLine(text->Plain());
  return start + model.Find("value")->Plain();
}

std::string DescText(const JsonValue& model);

// Appends the texts of a container's members.
void AddMembers(const JsonValue* members, const char* mark, std::vector<std::string>& texts) {
  if (members == nullptr) return;
  for (const auto& [key, model] : *members->AsObject()) {
    texts.push_back(mark + key + ":" + DescText(model));
  }
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (&text == &texts[0] ? "" : ", ") + text;
  return joined;
}

// Recursion is as deep as descriptors nest: 64 levels.
std::string DescText(const JsonValue& model) {
  const std::string type = model.Find("type")->Plain();
  std::vector<std::string> texts;
  if (const JsonValue* items = model.Find("items")) {
    for (const JsonValue& item : *items->AsArray()) texts.push_back(DescText(item));
    return type + " [" + Joined(texts) + "]";
  }
  if (model.Find("fields") == nullptr && model.Find("parameters") == nullptr) {
    return ValueText(type, model);
  }
  AddMembers(model.Find("attributes"), "&", texts);
  AddMembers(model.Find("fields"), "", texts);
  AddMembers(model.Find("parameters"), "", texts);
  return type + " {" + Joined(texts) + "}";
}

}  // namespace

namespace {

// The message about an argument that does not begin with a key of four characters and a colon.
std::string NotAParameter(std::string_view text) {
  const std::string start = Quoted(text) + " is not a parameter of the form KEY:TYPE=VALUE";
  const size_t colon = text.find(':');
  const size_t equals = text.find('=');
  if (equals == text.npos) return start + ": it has no =";
  if (colon == text.npos || colon > equals) return start + ": it has no : before the =";
  const std::string_view key = text.substr(0, colon);
  return start + ": the key " + Quoted(key) + NotACode(key);
}

// Why a value does not fit its type.
std::string NotAValue(std::string_view type, const ValueType* row, std::string_view given) {
  const std::string start = Quoted(given) + " is not a value of type " + std::string(type);
  if (row == nullptr || row->kind == ValueKind::kData) {
    return start + "; it takes hexadecimal digits, two for each byte";
  }
  switch (row->kind) {
    case ValueKind::kBool:
      return start + "; it takes true or false";
    case ValueKind::kSigned:
    case ValueKind::kUnsigned:
      return start + "; it takes decimal integers of " + std::to_string(8 * row->width) + " bits" +
             (row->kind == ValueKind::kUnsigned ? " without a sign" : "");
    case ValueKind::kReal:
      return start + "; it takes numbers such as 1.5 or -2e3";
    case ValueKind::kCode:
      return start + "; it takes codes of four characters, or 0x and eight digits";
    case ValueKind::kText:
      return start + (IsUtf8(given) ? ", whose encoding lacks some of its characters; use utf8"
                                    : "; it takes UTF-8 text");
    default:
      return start + "; it takes UTF-8 text";
  }
}

}  // namespace

bool ParseParameter(std::string_view text, ParameterValue& value, std::string& problem) {
  // The key may hold a colon of its own: it has four characters or ten.
  const size_t keySize = text.starts_with("0x") && text.size() > 10 && text[10] == ':' ? 10 : 4;
  const size_t equals = text.find('=', keySize + 1);
  if (text.size() <= keySize || text[keySize] != ':' || equals == text.npos) {
    return problem = NotAParameter(text), false;
  }
  const std::string_view type = text.substr(keySize + 1, equals - keySize - 1);
  const std::string_view given = text.substr(equals + 1);
  if (!ParseCode(text.substr(0, keySize), value.key)) {
    return problem = "key " + Quoted(text.substr(0, keySize)) + NotACode(text.substr(0, keySize)),
           false;
  }
  const ValueType* row = ValueTypeNamed(type);
  const bool isQuoted = type.size() > 2 && type.front() == '\'' && type.back() == '\'';
  if (row != nullptr) {
    value.type = row->type;
  } else if (!isQuoted || !ParseCode(type.substr(1, type.size() - 2), value.type)) {
    return problem = "unknown type " + Quoted(type) + "; the types are " + ValueTypeList() +
                     ", or a code in single quotes",
           false;
  }
  if (!(row != nullptr ? PutNamed(*row, given, value.bytes)
                       : PutHex(value.type, given, value.bytes))) {
    return problem = NotAValue(type, row, given), false;
  }
  return true;
}

std::vector<std::string> ParameterLines(const JsonValue& parameters) {
  std::vector<std::string> lines;
  const JsonValue::Object* members = parameters.AsObject();
  if (members == nullptr) return lines;
  for (const auto& [key, model] : *members) lines.push_back(key + ":" + DescText(model));
  return lines;
}
