#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// JsonValue is what a verb has to tell: one value of JSON, owning all below it. A verb fills it
// once; its JSON line and its text for people are both made of it, so they cannot disagree. Plain
// data, one thread at a time.

// A number by the digits that stand for it, so that none is lost on the way.
struct JsonNumber {
  std::string digits;
};

class JsonValue {
 public:
  using Array = std::vector<JsonValue>;
  using Member = std::pair<std::string, JsonValue>;
  using Object = std::vector<Member>;  // in the order in which it is written; names differ

  JsonValue() = default;  // null
  JsonValue(std::string text) : value(std::move(text)) {}
  JsonValue(const char* text) : value(std::string(text)) {}
  JsonValue(Array items) : value(std::move(items)) {}
  JsonValue(Object members) : value(std::move(members)) {}

  // Named, so that no pointer or number becomes a truth by accident.
  static JsonValue Bool(bool is);
  // A number, or a string of the same digits beyond +-(2^53 - 1), where readers that keep numbers
  // as doubles would change it.
  static JsonValue Integer(int64_t number);
  static JsonValue Unsigned(uint64_t number);
  // The shortest digits that read back as the same value, always with a point or an exponent. What
  // JSON has no number for is the string "NaN", "Infinity" or "-Infinity".
  static JsonValue Real(float number);
  static JsonValue Real(double number);

  bool IsNull() const { return std::holds_alternative<std::monostate>(value); }
  const std::string* AsString() const { return std::get_if<std::string>(&value); }
  Array* AsArray() { return std::get_if<Array>(&value); }
  const Array* AsArray() const { return std::get_if<Array>(&value); }
  Object* AsObject() { return std::get_if<Object>(&value); }
  const Object* AsObject() const { return std::get_if<Object>(&value); }
  double AsDouble() const;  // 0 for what is no number
  bool IsTrue() const;

  // A scalar as people read it: a string's bytes, a number's digits, true, false or null. "" for
  // arrays and objects.
  std::string Plain() const;

  // Adds a member to an object. The result is valid until the next one.
  JsonValue& Add(std::string name, JsonValue member);
  // Adds bytes that are text as a rule: member `name`, and when they are not UTF-8 also `name`Hex
  // with all of them.
  void AddBytes(const std::string& name, const std::string& bytes);
  const JsonValue* Find(std::string_view name) const;  // null when absent, or in no object

 private:
  template <class Number>
  static JsonValue FromReal(Number number);

  std::variant<std::monostate, bool, JsonNumber, std::string, Array, Object> value;
};

// One line of JSON without its end, valid UTF-8 whatever the strings hold: control characters, line
// separators and halves of surrogate pairs (in three bytes each) are escaped, other bytes that are
// not UTF-8 become U+FFFD. No recursion.
std::string JsonText(const JsonValue& value);

bool IsUtf8(std::string_view bytes);
