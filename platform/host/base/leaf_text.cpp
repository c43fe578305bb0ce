#include "platform/host/base/leaf_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace {

constexpr SInt64 kDaysTo2001 = 730791;  // from 0000-03-01, where the years of the arithmetic begin
constexpr SInt64 kSecondsPerDay = 86400;
constexpr SInt64 kFirstSecond = -63113904000;  // 0001-01-01T00:00:00Z
constexpr SInt64 kEndSecond = 252423993600;    // 10000-01-01T00:00:00Z

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Returns the days from 2001-01-01 in the Gregorian calendar, which is used for all years. The
// arithmetic lets years begin in March, so that the leap day is the last day of a year.
SInt64 DaysFromDate(int year, int month, int day) {
  const int y = month <= 2 ? year - 1 : year;
  const int dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  return SInt64{365} * y + y / 4 - y / 100 + y / 400 + dayOfYear - kDaysTo2001;
}

struct CivilDate {
  int year;
  int month;
  int day;
};

CivilDate DateFromDays(SInt64 days) {
  days += kDaysTo2001;  // positive for all years from 1 on
  const SInt64 era = days / 146097;
  const int dayOfEra = static_cast<int>(days % 146097);
  const int year = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int dayOfYear = dayOfEra - (365 * year + year / 4 - year / 100);
  const int month = (5 * dayOfYear + 2) / 153;
  CivilDate date;
  date.day = dayOfYear - (153 * month + 2) / 5 + 1;
  date.month = month < 10 ? month + 3 : month - 9;
  date.year = static_cast<int>(era * 400) + year + (date.month <= 2 ? 1 : 0);
  return date;
}

int DaysInMonth(int year, int month) {
  constexpr UInt8 kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool isLeap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return month == 2 && isLeap ? 29 : kDays[month - 1];
}

void PutTwoDigits(char* out, int value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
}

// Writes whole numbers and those with halves, quarters or eighths, whose digits are few and exact;
// most settings are such numbers. Returns null for all others.
char* PutFewDigits(double value, char* out) {
  constexpr double kLimit = 1e13;  // with three decimals, at most 17 digits
  if (value == 0 || !(std::fabs(value) < kLimit)) return nullptr;  // -0 has its sign
  const auto eighths = static_cast<SInt64>(value * 8);
  if (static_cast<double>(eighths) != value * 8) return nullptr;
  constexpr std::string_view kParts[] = {"", ".125", ".25", ".375", ".5", ".625", ".75", ".875"};
  const auto magnitude = static_cast<UInt64>(eighths < 0 ? -eighths : eighths);
  if (eighths < 0) *out++ = '-';
  out = std::to_chars(out, out + 20, magnitude / 8).ptr;
  const std::string_view part = kParts[magnitude % 8];
  return std::copy(part.begin(), part.end(), out);
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsWord(std::string_view text, std::string_view word) {
  if (text.size() != word.size()) return false;
  for (size_t i = 0; i < word.size(); ++i) {
    if (Lower(text[i]) != word[i]) return false;
  }
  return true;
}

// Returns the value of a well-formed number outside the range of double: infinity if it is too
// large, 0 if it is too small. The caller applies the sign.
double RoundBeyondRange(std::string_view text) {
  constexpr SInt64 kBeyondAll = SInt64{1} << 40;
  const size_t mark = std::min(text.find_first_of("eE"), text.size());
  const std::string_view digits = text.substr(0, mark);
  const auto point = static_cast<SInt64>(std::min(digits.find('.'), digits.size()));
  const auto first = static_cast<SInt64>(digits.find_first_of("123456789"));
  std::string_view written = text.substr(std::min(mark + 1, text.size()));
  if (written.starts_with('+')) written.remove_prefix(1);
  SInt64 exponent = 0;
  const auto parsed = std::from_chars(written.data(), written.data() + written.size(), exponent);
  if (parsed.ec == std::errc::result_out_of_range) {
    exponent = written.starts_with('-') ? -kBeyondAll : kBeyondAll;
  }
  return point - first + exponent > 0 ? std::numeric_limits<double>::infinity() : 0.0;
}

// The values of base64 characters: 0 to 63, or one of these.
constexpr UInt8 kBlank = 64;
constexpr UInt8 kPadding = 65;
constexpr UInt8 kForeign = 66;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<UInt8, 256> kMeaning = [] {
  std::array<UInt8, 256> table{};
  table.fill(kForeign);
  for (UInt8 i = 0; i < 64; ++i) table[static_cast<UInt8>(kAlphabet[i])] = i;
  for (const char blank : {' ', '\t', '\r', '\n'}) table[static_cast<UInt8>(blank)] = kBlank;
  table['='] = kPadding;
  return table;
}();

// Decodes the end of base64: the characters of the last, incomplete group, and its padding.
const UInt8* FinishBase64(const UInt8* at, const UInt8* end, int missing) {
  for (; at < end; ++at) {
    const UInt8 meaning = kMeaning[*at];
    if (meaning == kBlank) continue;
    if (meaning != kPadding || missing == 0) return at;
    --missing;
  }
  return missing == 0 ? nullptr : end;
}

}  // namespace

HostPlistParse HostParsePlistInteger(std::string_view text, bool* isNegative, UInt64* magnitude) {
  *isNegative = !text.empty() && text[0] == '-';
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *magnitude, base);
  if (stop != end || error == std::errc::invalid_argument) return HostPlistParse::kMalformed;
  const UInt64 limit = *isNegative ? UInt64{1} << 63 : UINT64_MAX;
  if (error != std::errc() || *magnitude > limit) return HostPlistParse::kOutOfRange;
  return HostPlistParse::kGood;
}

bool HostParsePlistReal(std::string_view text, double* value) {
  const bool isNegative = !text.empty() && text[0] == '-';
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
  if (IsWord(text, "nan")) {
    *value = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  if (IsWord(text, "inf") || IsWord(text, "infinity")) {
    *value = std::numeric_limits<double>::infinity() * (isNegative ? -1 : 1);
    return true;
  }
  if (text.empty() || (!IsDigit(text[0]) && text[0] != '.')) return false;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *value);
  if (stop != end || error == std::errc::invalid_argument) return false;
  if (error == std::errc::result_out_of_range) *value = RoundBeyondRange(text);
  if (isNegative) *value = -*value;
  return true;
}

HostPlistParse HostParsePlistDate(std::string_view text, CFAbsoluteTime* time) {
  constexpr std::string_view kPattern = "0000-00-00T00:00:00Z";
  if (text.size() != kPattern.size()) return HostPlistParse::kMalformed;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool fits = kPattern[i] == '0' ? IsDigit(text[i]) : text[i] == kPattern[i];
    if (!fits) return HostPlistParse::kMalformed;
  }
  const auto number = [text](size_t from) {
    return (text[from] - '0') * 10 + text[from + 1] - '0';
  };
  const int year = number(0) * 100 + number(2);
  const int month = number(5);
  const int day = number(8);
  if (year < 1 || month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) ||
      number(11) > 23 || number(14) > 59 || number(17) > 59) {
    return HostPlistParse::kOutOfRange;
  }
  const SInt64 seconds = number(11) * 3600 + number(14) * 60 + number(17);
  *time = static_cast<double>(DaysFromDate(year, month, day) * kSecondsPerDay + seconds);
  return HostPlistParse::kGood;
}

size_t HostFormatPlistReal(double value, char* out) {
  const char* word = std::isnan(value)    ? "nan"
                     : !std::isinf(value) ? nullptr
                     : value > 0          ? "+infinity"
                                          : "-infinity";
  if (word == nullptr) {
    if (char* const end = PutFewDigits(value, out)) return static_cast<size_t>(end - out);
    const auto format = std::chars_format::general;
    return static_cast<size_t>(std::to_chars(out, out + kHostPlistRealRoom, value, format, 17).ptr -
                               out);
  }
  const size_t size = std::strlen(word);
  std::memcpy(out, word, size);
  return size;
}

bool HostIsPlistDate(CFAbsoluteTime time) {
  return time >= static_cast<double>(kFirstSecond) && time < static_cast<double>(kEndSecond);
}

bool HostFormatPlistDate(CFAbsoluteTime time, char* out) {
  if (!HostIsPlistDate(time)) return false;  // NaN too
  auto seconds = static_cast<SInt64>(time);
  if (static_cast<double>(seconds) > time) --seconds;
  const SInt64 days = (seconds - kFirstSecond) / kSecondsPerDay;
  const auto rest = static_cast<int>((seconds - kFirstSecond) % kSecondsPerDay);
  const CivilDate date = DateFromDays(days + kFirstSecond / kSecondsPerDay);
  std::memcpy(out, "0000-00-00T00:00:00Z", kHostPlistDateSize);
  PutTwoDigits(out, date.year / 100);
  PutTwoDigits(out + 2, date.year % 100);
  PutTwoDigits(out + 5, date.month);
  PutTwoDigits(out + 8, date.day);
  PutTwoDigits(out + 11, rest / 3600);
  PutTwoDigits(out + 14, rest / 60 % 60);
  PutTwoDigits(out + 17, rest % 60);
  return true;
}

const UInt8* HostDecodeBase64(const UInt8* text, size_t count, UInt8* out, size_t* decoded) {
  const UInt8* at = text;
  const UInt8* const end = text + count;
  const UInt8* const first = out;
  UInt32 group = 0;
  int inGroup = 0;
  for (;;) {
    // Decodes whole groups without white space between them.
    while (inGroup == 0 && end - at >= 4) {
      const UInt8 a = kMeaning[at[0]], b = kMeaning[at[1]], c = kMeaning[at[2]],
                  d = kMeaning[at[3]];
      if ((a | b | c | d) >= 64) break;
      out[0] = static_cast<UInt8>(a << 2 | b >> 4);
      out[1] = static_cast<UInt8>(b << 4 | c >> 2);
      out[2] = static_cast<UInt8>(c << 6 | d);
      out += 3;
      at += 4;
    }
    if (at == end || kMeaning[*at] >= kPadding) break;
    const UInt8 meaning = kMeaning[*at++];
    if (meaning == kBlank) continue;
    group = group << 6 | meaning;
    if (++inGroup < 4) continue;
    for (int shift = 16; shift >= 0; shift -= 8) *out++ = static_cast<UInt8>(group >> shift);
    group = 0;
    inGroup = 0;
  }
  if (inGroup >= 2) *out++ = static_cast<UInt8>(group >> (inGroup == 2 ? 4 : 10));
  if (inGroup == 3) *out++ = static_cast<UInt8>(group >> 2);
  *decoded = static_cast<size_t>(out - first);
  if (inGroup == 1) return at;
  return FinishBase64(at, end, inGroup == 0 ? 0 : 4 - inGroup);
}

size_t HostEncodeBase64(const UInt8* bytes, size_t count, UInt8* out) {
  const auto letter = [](UInt32 bits) { return static_cast<UInt8>(kAlphabet[bits & 63]); };
  UInt8* const first = out;
  for (; count >= 3; count -= 3, bytes += 3, out += 4) {
    const UInt32 group = UInt32{bytes[0]} << 16 | UInt32{bytes[1]} << 8 | bytes[2];
    out[0] = letter(group >> 18);
    out[1] = letter(group >> 12);
    out[2] = letter(group >> 6);
    out[3] = letter(group);
  }
  if (count > 0) {
    const UInt32 group = UInt32{bytes[0]} << 16 | (count > 1 ? UInt32{bytes[1]} << 8 : 0);
    out[0] = letter(group >> 18);
    out[1] = letter(group >> 12);
    out[2] = count > 1 ? letter(group >> 6) : UInt8{'='};
    out[3] = '=';
    out += 4;
  }
  return static_cast<size_t>(out - first);
}
