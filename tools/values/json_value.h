#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// JsonValue is one value of JSON and owns its members. A verb puts its results into one and makes
// both its JSON line and its text for people from it, so that they cannot disagree. Only one thread
// at a time may use an object.

// A number, stored as its digits, so that it keeps all of them.
struct JsonNumber {
  std::string digits;
};

class JsonValue {
 public:
  using Array = std::vector<JsonValue>;
  using Member = std::pair<std::string, JsonValue>;
  using Object = std::vector<Member>;  // in the order of writing; names are unique

  JsonValue() = default;  // null
  JsonValue(std::string text) : value(std::move(text)) {}
  JsonValue(const char* text) : value(std::string(text)) {}
  JsonValue(Array items) : value(std::move(items)) {}
  JsonValue(Object members) : value(std::move(members)) {}

  // A named function, so that a pointer or number cannot become a Boolean value by accident.
  static JsonValue Bool(bool is);
  // A number, or a string of the same digits beyond +-(2^53 - 1), where readers that keep numbers
  // as doubles would change it.
  static JsonValue Integer(int64_t number);
  static JsonValue Unsigned(uint64_t number);
  // The shortest digits that read back as the same value, always with a dot or an exponent. Values
  // that JSON does not have become the strings "NaN", "Infinity" and "-Infinity".
  static JsonValue Real(float number);
  static JsonValue Real(double number);

  bool IsNull() const { return std::holds_alternative<std::monostate>(value); }
  const std::string* AsString() const { return std::get_if<std::string>(&value); }
  Array* AsArray() { return std::get_if<Array>(&value); }
  const Array* AsArray() const { return std::get_if<Array>(&value); }
  Object* AsObject() { return std::get_if<Object>(&value); }
  const Object* AsObject() const { return std::get_if<Object>(&value); }
  double AsDouble() const;  // 0 if it is not a number
  bool IsTrue() const;

  // A scalar as text for people: a string's bytes, a number's digits, true, false or null. "" for
  // arrays and objects.
  std::string Plain() const;

  // Adds a member to an object. The result is valid until the next call.
  JsonValue& Add(std::string name, JsonValue member);
  // Adds bytes that are usually text as the member `name`, and if they are not UTF-8 also `name`Hex
  // with all of them.
  void AddBytes(const std::string& name, const std::string& bytes);
  // Returns null if there is no such member or this is not an object.
  const JsonValue* Find(std::string_view name) const;

 private:
  template <class Number>
  static JsonValue FromReal(Number number);

  std::variant<std::monostate, bool, JsonNumber, std::string, Array, Object> value;
};

// Returns one line of JSON without a line feed. It is always valid UTF-8: control characters, line
// separators and halves of surrogate pairs (in three bytes each) are escaped, other bytes that are
// not UTF-8 become U+FFFD. Does not recurse.
std::string JsonText(const JsonValue& value);

bool IsUtf8(std::string_view bytes);
