#pragma once

#include <CoreServices/CoreServices.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The descriptor types that the tool knows: their names and the meaning of their bytes. Pure
// functions, any thread.

// Reads a four-character code: exactly four printable ASCII characters, or 0x and exactly eight
// hexadecimal digits.
bool ParseCode(std::string_view text, FourCharCode& code);
// The rest of a message that begins with a text that ParseCode refuses.
inline constexpr char kNotACode[] = " is not four characters, or 0x and eight hexadecimal digits";

// The message about a text that ParseCode refuses: kNotACode, and the number of its characters if
// that is the fault.
std::string NotACode(std::string_view text);
// The names of all types that have one, with commas between them.
std::string ValueTypeList();

// Returns a code as four characters if they are printable and not : = ' or a comma, otherwise as 0x
// and eight digits. Different codes give different texts.
std::string CodeText(FourCharCode code);

// The meaning of a value's bytes.
enum class ValueKind {
  kBool,    // one byte
  kSigned,  // integers of the row's width, usually one
  kUnsigned,
  kReal,      // IEEE
  kFixed,     // signed, with 16 bits after the binary point
  kCode,      // four characters
  kWords,     // two 32-bit words, the high one first
  kWide,      // a number that does not fit a double
  kText,      // text that can be coerced to UTF-8
  kUtf8,      // UTF-8
  kConstant,  // no bytes: the type is the value
  kData,      // bytes
};

struct ValueType {
  const char* name;  // on the command line; null: known by its code only
  DescType type;
  size_t width;  // bytes of one number: 1, 2, 4 or 8; 1 if the value is not a number
  ValueKind kind;
};

// The names that the command line knows.
std::vector<std::string_view> ValueTypeNames();

// Return null if there is no such row.
const ValueType* ValueTypeNamed(std::string_view name);
const ValueType* ValueTypeOf(DescType type);

// Reads a number of `width` bytes in native byte order.
uint64_t LoadNumber(const char* bytes, size_t width);

// Converts a value's numbers between native byte order and most significant byte first. Bytes whose
// size is not a multiple of the width are returned unchanged.
std::string SwappedToBig(DescType type, std::string bytes);
