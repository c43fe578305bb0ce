#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

#include "platform/host/events/number.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The parts of a decimal text. The value is 0.d1d2d3... * 10^point, d1 not being 0.
struct Decimal {
  bool negative = false;
  std::string_view whole;  // digits before the point, as written
  std::string_view fraction;
  SInt64 exponent = 0;  // as written
  std::string digits;   // no zeros at either end; empty for zero
  SInt64 point = 0;
};

std::string_view TakeDigits(std::string_view* rest) {
  size_t count = 0;
  while (count < rest->size() && IsDigit((*rest)[count])) ++count;
  const std::string_view digits = rest->substr(0, count);
  rest->remove_prefix(count);
  return digits;
}

bool TakeSign(std::string_view* rest) {
  if (rest->empty() || (rest->front() != '+' && rest->front() != '-')) return false;
  const bool negative = rest->front() == '-';
  rest->remove_prefix(1);
  return negative;
}

// An exponent beyond the limit gives the same result as the limit: zero or too large.
bool TakeExponent(std::string_view* rest, SInt64* exponent) {
  constexpr SInt64 kLimit = SInt64{1} << 40;
  if (rest->empty() || (rest->front() != 'e' && rest->front() != 'E')) return true;
  rest->remove_prefix(1);
  const bool negative = TakeSign(rest);
  const std::string_view digits = TakeDigits(rest);
  for (char digit : digits) *exponent = std::min(kLimit, *exponent * 10 + (digit - '0'));
  if (negative) *exponent = -*exponent;
  return !digits.empty();
}

bool ParseDecimal(std::string_view rest, Decimal* out) {
  while (!rest.empty() && IsBlank(rest.front())) rest.remove_prefix(1);
  while (!rest.empty() && IsBlank(rest.back())) rest.remove_suffix(1);
  out->negative = TakeSign(&rest);
  out->whole = TakeDigits(&rest);
  if (!rest.empty() && rest.front() == '.') {
    rest.remove_prefix(1);
    out->fraction = TakeDigits(&rest);
  }
  if (out->whole.empty() && out->fraction.empty()) return false;
  if (!TakeExponent(&rest, &out->exponent) || !rest.empty()) return false;

  out->digits.append(out->whole).append(out->fraction);
  const size_t zeros = std::min(out->digits.find_first_not_of('0'), out->digits.size());
  out->digits.erase(0, zeros);
  out->digits.erase(out->digits.find_last_not_of('0') + 1);
  out->point = static_cast<SInt64>(out->whole.size()) - static_cast<SInt64>(zeros) + out->exponent;
  return true;
}

void SetInteger(UInt64 magnitude, bool negative, HostNumber* out) {
  uint8_t bytes[sizeof magnitude];
  memcpy(bytes, &magnitude, sizeof bytes);
  HostReadNumber(typeUInt64, bytes, sizeof bytes, out);
  out->negative = negative;
}

// Rounds to the nearest integer, halves to even. Returns false over 64 bits.
bool RoundDecimal(const Decimal& decimal, HostNumber* out) {
  const std::string& digits = decimal.digits;
  if (digits.empty() || decimal.point < 0) {
    SetInteger(0, decimal.negative, out);
    return true;
  }
  if (decimal.point > 20) return false;
  const auto whole = static_cast<size_t>(decimal.point);
  UInt64 value = 0;
  for (size_t i = 0; i < whole; ++i) {
    const UInt64 digit = i < digits.size() ? static_cast<UInt64>(digits[i] - '0') : 0;
    if (__builtin_mul_overflow(value, UInt64{10}, &value)) return false;
    if (__builtin_add_overflow(value, digit, &value)) return false;
  }
  const char next = whole < digits.size() ? digits[whole] : '0';
  const bool rest = digits.find_first_not_of('0', whole + 1) != std::string::npos;
  const bool up = next > '5' || (next == '5' && (rest || (value & 1) != 0));
  if (up && __builtin_add_overflow(value, UInt64{1}, &value)) return false;
  SetInteger(value, decimal.negative, out);
  return true;
}

template <class Float>
bool ParseFloat(const Decimal& decimal, DescType type, HostNumber* out) {
  // Reads the digits again, because the exponent as written may be beyond what the reader takes.
  std::string text = "0." + decimal.digits + "e" + std::to_string(decimal.point);
  Float value = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (result.ec == std::errc::result_out_of_range) {
    if (decimal.point > 0) return false;
    value = 0;  // too small to tell from zero
  } else if (result.ec != std::errc() || result.ptr != end) {
    return false;
  }
  if (!std::isfinite(value)) return false;
  HostReadNumber(type, &value, sizeof value, out);
  out->negative = decimal.negative;
  return true;
}

bool IsPlainInteger(DescType type) {
  return type == typeSInt16 || type == typeUInt16 || type == typeSInt32 || type == typeUInt32 ||
         type == typeSInt64 || type == typeUInt64;
}

template <class Value>
void Append(Value value, std::string* out) {
  char text[32];
  out->append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

template <class Float>
bool FormatFloat(Float value, std::string* out) {
  if (!std::isfinite(value)) return false;
  const Float magnitude = std::fabs(value);
  const bool fixed = magnitude == 0 || (magnitude >= Float(1e-5) && magnitude < Float(1e21));
  char text[64];
  const auto format = fixed ? std::chars_format::fixed : std::chars_format::scientific;
  out->append(text, std::to_chars(text, text + sizeof text, value, format).ptr);
  return true;
}

template <class Value>
Value ReadAs(const uint8_t* bytes) {
  Value value;
  memcpy(&value, bytes, sizeof value);
  return value;
}

}  // namespace

bool HostParseNumber(const char* text, size_t size, DescType type, HostNumber* out) {
  Decimal decimal;
  if (!ParseDecimal(std::string_view(text, size), &decimal)) return false;
  *out = HostNumber();
  if (IsPlainInteger(type)) return RoundDecimal(decimal, out);
  // A whole number is exact where the type has more digits than a double.
  const bool isWhole = static_cast<SInt64>(decimal.digits.size()) <= decimal.point;
  if (isWhole && RoundDecimal(decimal, out)) return true;
  if (type == typeIEEE32BitFloatingPoint) return ParseFloat<float>(decimal, type, out);
  return ParseFloat<double>(decimal, typeIEEE64BitFloatingPoint, out);
}

bool HostFormatNumber(DescType type, const void* data, size_t size, std::string* out) {
  HostNumber number;
  if (!HostReadNumber(type, data, size, &number)) return false;
  uint8_t bytes[kHostNumberSize];
  size_t width = 0;
  if (type == typeIEEE32BitFloatingPoint) {
    return HostWriteNumber(number, type, bytes, &width) && FormatFloat(ReadAs<float>(bytes), out);
  }
  // The wide types hold integers that a double would round.
  const bool isWhole = number.high == 0 || (number.exponent < 0 && number.exponent > -128);
  HostNumber back;
  if (type != typeIEEE64BitFloatingPoint && isWhole) {
    const DescType integer = number.negative ? typeSInt64 : typeUInt64;
    if (HostWriteNumber(number, integer, bytes, &width) &&
        HostReadNumber(integer, bytes, width, &back) && back.high == number.high &&
        back.low == number.low && back.exponent == number.exponent) {
      number.negative ? Append(ReadAs<SInt64>(bytes), out) : Append(ReadAs<UInt64>(bytes), out);
      return true;
    }
  }
  return HostWriteNumber(number, typeIEEE64BitFloatingPoint, bytes, &width) &&
         FormatFloat(ReadAs<double>(bytes), out);
}
