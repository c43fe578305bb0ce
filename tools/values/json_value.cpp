#include "tools/values/json_value.h"

#include <cassert>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "tools/values/port_text.h"

namespace {

constexpr int64_t kExactInDoubles = (int64_t{1} << 53) - 1;

// Reads one character at the start of `bytes`. Returns its length, or 0 if it is not well formed:
// cut short, longer than needed, half of a pair, beyond U+10FFFF.
size_t TakeCharacter(std::string_view bytes, uint32_t& character) {
  const auto lead = static_cast<unsigned char>(bytes[0]);
  character = lead;
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (bytes.size() < length) return 0;
  character = lead & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(bytes[i]);
    if ((next & 0xC0) != 0x80) return 0;
    character = character << 6 | (next & 0x3Fu);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isHalf = character >= 0xD800 && character < 0xE000;
  return character < kSmallest[length] || character > 0x10FFFF || isHalf ? 0 : length;
}

// Returns the half of a surrogate pair at the start of `bytes`, in the three bytes that UTF-8 would
// have for it; 0 if there is none.
uint32_t HalfOfPair(std::string_view bytes) {
  if (bytes.size() < 3 || bytes[0] != '\xED') return 0;
  const auto second = static_cast<unsigned char>(bytes[1]);
  const auto third = static_cast<unsigned char>(bytes[2]);
  if (second < 0xA0 || second > 0xBF || (third & 0xC0) != 0x80) return 0;
  return 0xD000u | (second & 0x3Fu) << 6 | (third & 0x3Fu);
}

// Also characters that JSON permits but that end a line or control a terminal.
bool NeedsEscape(uint32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0) || character == 0x2028 ||
         character == 0x2029;
}

void AppendEscape(uint32_t character, std::string& out) {
  switch (character) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
  }
  char digits[7];
  std::snprintf(digits, sizeof digits, "\\u%04x", static_cast<unsigned>(character & 0xFFFF));
  out += digits;
}

void AppendString(std::string_view text, std::string& out) {
  out += '"';
  while (!text.empty()) {
    uint32_t character = 0;
    size_t length = TakeCharacter(text, character);
    if (length == 0 && (character = HalfOfPair(text)) != 0) {
      AppendEscape(character, out);
      length = 3;
    } else if (length == 0) {
      out += "\xEF\xBF\xBD";
    } else if (NeedsEscape(character)) {
      AppendEscape(character, out);
    } else {
      if (character == '"' || character == '\\') out += '\\';
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  out += '"';
}

template <class Number>
std::string Digits(Number number) {
  char digits[64];
  return std::string(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// Uses a stack of its own instead of recursion, because other processes determine the depth.
class JsonWriter {
 public:
  std::string Write(const JsonValue& root) {
    Put(root);
    while (!open.empty()) Continue();
    return std::move(out);
  }

 private:
  struct Open {
    const JsonValue* value;
    size_t next;  // item or member
  };

  void Put(const JsonValue& value) {
    if (const std::string* text = value.AsString()) return AppendString(*text, out);
    if (value.AsArray() == nullptr && value.AsObject() == nullptr) {
      out += value.Plain();
      return;
    }
    out += value.AsArray() != nullptr ? '[' : '{';
    open.push_back({&value, 0});
  }

  void Continue() {
    const JsonValue& value = *open.back().value;
    const size_t index = open.back().next++;
    const JsonValue::Array* items = value.AsArray();
    const JsonValue::Object* members = value.AsObject();
    if (index == (items != nullptr ? items->size() : members->size())) {
      out += items != nullptr ? ']' : '}';
      open.pop_back();
      return;
    }
    if (index > 0) out += ',';
    if (items != nullptr) return Put((*items)[index]);
    AppendString((*members)[index].first, out);
    out += ':';
    Put((*members)[index].second);
  }

  std::string out;
  std::vector<Open> open;
};

}  // namespace

JsonValue JsonValue::Bool(bool is) {
  JsonValue made;
  made.value = is;
  return made;
}

JsonValue JsonValue::Integer(int64_t number) {
  if (number < -kExactInDoubles || number > kExactInDoubles) return Digits(number);
  JsonValue made;
  made.value = JsonNumber{Digits(number)};
  return made;
}

JsonValue JsonValue::Unsigned(uint64_t number) {
  if (number > static_cast<uint64_t>(kExactInDoubles)) return Digits(number);
  return Integer(static_cast<int64_t>(number));
}

template <class Number>
JsonValue JsonValue::FromReal(Number number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number < 0 ? "-Infinity" : "Infinity";
  std::string digits = Digits(number);
  // Otherwise a reader takes it for an integer, which has neither -0 nor this range.
  if (digits.find_first_of(".e") == digits.npos) digits += ".0";
  JsonValue made;
  made.value = JsonNumber{std::move(digits)};
  return made;
}

JsonValue JsonValue::Real(float number) { return FromReal(number); }
JsonValue JsonValue::Real(double number) { return FromReal(number); }

double JsonValue::AsDouble() const {
  const JsonNumber* number = std::get_if<JsonNumber>(&value);
  double result = 0;
  if (number == nullptr) return result;
  const char* const start = number->digits.data();
  std::from_chars(start, start + number->digits.size(), result);
  return result;
}

bool JsonValue::IsTrue() const {
  const bool* is = std::get_if<bool>(&value);
  return is != nullptr && *is;
}

std::string JsonValue::Plain() const {
  if (IsNull()) return "null";
  if (const bool* is = std::get_if<bool>(&value)) return *is ? "true" : "false";
  if (const JsonNumber* number = std::get_if<JsonNumber>(&value)) return number->digits;
  const std::string* text = AsString();
  return text != nullptr ? *text : "";
}

JsonValue& JsonValue::Add(std::string name, JsonValue member) {
  assert(AsObject() != nullptr);
  return std::get<Object>(value).emplace_back(std::move(name), std::move(member)).second;
}

void JsonValue::AddBytes(const std::string& name, const std::string& bytes) {
  Add(name, bytes);
  if (!IsUtf8(bytes)) Add(name + "Hex", HexText(bytes));
}

const JsonValue* JsonValue::Find(std::string_view name) const {
  const Object* members = AsObject();
  if (members == nullptr) return nullptr;
  for (const Member& member : *members) {
    if (member.first == name) return &member.second;
  }
  return nullptr;
}

std::string JsonText(const JsonValue& value) { return JsonWriter().Write(value); }

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    uint32_t character = 0;
    const size_t length = TakeCharacter(bytes, character);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}
