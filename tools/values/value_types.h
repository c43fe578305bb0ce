#pragma once

#include <CoreServices/CoreServices.h>

#include <cstdint>
#include <string>
#include <string_view>

// What the tool knows of descriptor types: how they are called, what their bytes mean. Pure
// functions, any thread.

// A four-character code: exactly four printable characters, or 0x and exactly eight hexadecimal
// digits. Nothing else.
bool ParseCode(std::string_view text, FourCharCode& code);
// The rest of a message that begins with a text that ParseCode refuses.
inline constexpr char kNotACode[] = " is not four characters, or 0x and eight hexadecimal digits";

// The code as four characters if they are printable and none of : = ' and comma, else 0x and eight
// digits. Different codes have different texts.
std::string CodeText(FourCharCode code);

// What the bytes of a value are.
enum class ValueKind {
  kBool,    // one byte
  kSigned,  // integers of the row's width, one as a rule
  kUnsigned,
  kReal,      // IEEE
  kFixed,     // signed, 16 bits behind the point
  kCode,      // four characters
  kWords,     // two 32-bit words, the high one first
  kWide,      // one number that is no double
  kText,      // text that coerces to UTF-8
  kUtf8,      // UTF-8 by its own
  kConstant,  // none: the type says it all
  kData,      // bytes
};

struct ValueType {
  const char* name;  // on the command line; null: only by its code
  DescType type;
  size_t width;  // of one number in bytes: 1, 2, 4 or 8; 1 when the value is not numbers
  ValueKind kind;
};

// Null when there is no such row.
const ValueType* ValueTypeNamed(std::string_view name);
const ValueType* ValueTypeOf(DescType type);

// The number in `width` bytes in the host's order.
uint64_t LoadNumber(const char* bytes, size_t width);

// Turns a value's bytes from the host's order to most significant byte first, number by number, or
// back. Sizes that are no multiple of the width are no numbers and stay as they are.
std::string SwappedToBig(DescType type, std::string bytes);
