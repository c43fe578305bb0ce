#include "platform/host/objects/cf_string.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kMaxField = 65535;  // widths and precisions beyond it are cut

enum class Width { kChar, kShort, kPlain, kLongLong, kLongDouble };

// One conversion as written, the stars already replaced by their arguments.
struct Conversion {
  std::string flags;
  int width = 0;
  int precision = -1;  // none
  Width size = Width::kPlain;
  UniChar letter = 0;

  bool IsLeft() const { return flags.find('-') != std::string::npos; }
};

bool IsOneOf(UniChar unit, const char* set) {
  return unit != 0 && unit < 0x80 && std::strchr(set, unit) != nullptr;
}

// HostFormatter walks a format once and appends to `out`. It takes its own copy of the arguments.
class HostFormatter {
 public:
  HostFormatter(HostTextView text, va_list list) : format(text) { va_copy(arguments, list); }
  ~HostFormatter() { va_end(arguments); }
  HostFormatter(const HostFormatter&) = delete;
  HostFormatter& operator=(const HostFormatter&) = delete;

  bool Run();
  const std::vector<UniChar>& Result() const { return out; }

 private:
  UniChar Peek() const { return at < format.length ? format.At(at) : UniChar{0}; }
  int ReadNumber();
  int ReadField();
  void ReadSize(Conversion& conversion);
  bool ReadConversion(Conversion& conversion);

  bool Put(const Conversion& conversion);
  void PutSigned(const Conversion& conversion);
  void PutUnsigned(const Conversion& conversion);
  void PutFloat(const Conversion& conversion);
  void PutObject(const Conversion& conversion);
  void PutMacRoman(const Conversion& conversion, const char* text);
  void PutUnits(const Conversion& conversion, const UniChar* text);
  void PutText(const Conversion& conversion, HostTextView text);
  template <class Value>
  void PutPrinted(const Conversion& conversion, const char* modifier, Value value);

  HostTextView format;
  size_t at = 0;
  va_list arguments;
  std::vector<UniChar> out;
};

bool HostFormatter::Run() {
  while (at < format.length) {
    const UniChar unit = format.At(at++);
    if (unit != '%') {
      out.push_back(unit);
      continue;
    }
    Conversion conversion;
    if (!ReadConversion(conversion) || !Put(conversion)) return false;
  }
  return true;
}

int HostFormatter::ReadNumber() {
  int number = 0;
  for (; IsOneOf(Peek(), "0123456789"); ++at) {
    number = std::min(number * 10 + (Peek() - '0'), kMaxField);
  }
  return number;
}

// Reads a number, or a star with its argument.
int HostFormatter::ReadField() {
  if (Peek() != '*') return ReadNumber();
  ++at;
  return std::clamp(va_arg(arguments, int), -kMaxField, kMaxField);
}

void HostFormatter::ReadSize(Conversion& conversion) {
  int shorts = 0;
  int longs = 0;
  for (; IsOneOf(Peek(), "hlqjztL"); ++at) {
    const UniChar unit = Peek();
    if (unit == 'h') ++shorts;
    if (unit == 'l') ++longs;  // one alone is the platform's long: as wide as an int
    if (unit == 'q' || unit == 'j') longs += 2;
    if (unit == 'L') conversion.size = Width::kLongDouble;
  }
  if (shorts > 0) conversion.size = shorts > 1 ? Width::kChar : Width::kShort;
  if (longs > 1) conversion.size = Width::kLongLong;
}

bool HostFormatter::ReadConversion(Conversion& conversion) {
  for (; IsOneOf(Peek(), "-+ #0"); ++at) conversion.flags.push_back(static_cast<char>(Peek()));
  conversion.width = ReadField();
  if (conversion.width < 0) {
    conversion.flags.push_back('-');
    conversion.width = -conversion.width;
  }
  if (Peek() == '.') {
    ++at;
    conversion.precision = ReadField();  // negative counts as none
  }
  ReadSize(conversion);
  conversion.letter = Peek();
  ++at;
  return conversion.letter != 0;
}

bool HostFormatter::Put(const Conversion& conversion) {
  const UniChar letter = conversion.letter;
  if (letter == '%') {
    out.push_back('%');
  } else if (IsOneOf(letter, "di")) {
    PutSigned(conversion);
  } else if (IsOneOf(letter, "uxXo")) {
    PutUnsigned(conversion);
  } else if (IsOneOf(letter, "fFeEgGaA")) {
    PutFloat(conversion);
  } else if (letter == '@') {
    PutObject(conversion);
  } else if (letter == 's') {
    PutMacRoman(conversion, va_arg(arguments, const char*));
  } else if (letter == 'S') {
    PutUnits(conversion, va_arg(arguments, const UniChar*));
  } else if (letter == 'c') {
    const UniChar unit = HostMacRomanToUnicode(static_cast<UInt8>(va_arg(arguments, int)));
    PutText(conversion, {nullptr, &unit, 1});
  } else if (letter == 'C') {
    const auto unit = static_cast<UniChar>(va_arg(arguments, int));
    PutText(conversion, {nullptr, &unit, 1});
  } else if (letter == 'p') {
    PutPrinted(conversion, "", va_arg(arguments, const void*));
  } else {
    return false;
  }
  return true;
}

void HostFormatter::PutSigned(const Conversion& conversion) {
  SInt64 value = 0;
  if (conversion.size == Width::kLongLong) {
    value = va_arg(arguments, SInt64);
  } else {
    const SInt32 word = va_arg(arguments, SInt32);
    value = word;
    if (conversion.size == Width::kShort) value = static_cast<SInt16>(word);
    if (conversion.size == Width::kChar) value = static_cast<SInt8>(word);
  }
  PutPrinted(conversion, "ll", static_cast<long long>(value));
}

void HostFormatter::PutUnsigned(const Conversion& conversion) {
  UInt64 value = 0;
  if (conversion.size == Width::kLongLong) {
    value = va_arg(arguments, UInt64);
  } else {
    const UInt32 word = va_arg(arguments, UInt32);
    value = word;
    if (conversion.size == Width::kShort) value = static_cast<UInt16>(word);
    if (conversion.size == Width::kChar) value = static_cast<UInt8>(word);
  }
  PutPrinted(conversion, "ll", static_cast<unsigned long long>(value));
}

void HostFormatter::PutFloat(const Conversion& conversion) {
  if (conversion.size == Width::kLongDouble) {
    PutPrinted(conversion, "L", va_arg(arguments, long double));
  } else {
    PutPrinted(conversion, "", va_arg(arguments, double));
  }
}

void HostFormatter::PutObject(const Conversion& conversion) {
  const HostRetained<const HostCFString> text(CFCopyDescription(va_arg(arguments, CFTypeRef)));
  if (!text) return PutMacRoman(conversion, nullptr);
  PutText(conversion, text->Text());
}

void HostFormatter::PutMacRoman(const Conversion& conversion, const char* text) {
  if (text == nullptr) text = "(null)";
  // With a precision the text need not be terminated.
  const size_t size = conversion.precision >= 0
                          ? strnlen(text, static_cast<size_t>(conversion.precision))
                          : std::strlen(text);
  std::vector<UniChar> units(size);
  std::transform(text, text + size, units.begin(),
                 [](char c) { return HostMacRomanToUnicode(static_cast<UInt8>(c)); });
  PutText(conversion, {nullptr, units.data(), size});
}

void HostFormatter::PutUnits(const Conversion& conversion, const UniChar* text) {
  if (text == nullptr) return PutMacRoman(conversion, nullptr);
  size_t length = 0;
  while (length != static_cast<size_t>(conversion.precision) && text[length] != 0) ++length;
  PutText(conversion, {nullptr, text, length});
}

void HostFormatter::PutText(const Conversion& conversion, HostTextView text) {
  size_t length = text.length;
  if (conversion.precision >= 0) {
    length = std::min(length, static_cast<size_t>(conversion.precision));
  }
  const auto width = static_cast<size_t>(conversion.width);
  const size_t padding = width > length ? width - length : 0;
  if (!conversion.IsLeft()) out.insert(out.end(), padding, ' ');
  for (size_t i = 0; i < length; ++i) out.push_back(text.At(i));
  if (conversion.IsLeft()) out.insert(out.end(), padding, ' ');
}

// Formats one number with the C library; width and precision are numbers already.
template <class Value>
void HostFormatter::PutPrinted(const Conversion& conversion, const char* modifier, Value value) {
  std::string text = "%" + conversion.flags + "*";
  if (conversion.precision >= 0) text += "." + std::to_string(conversion.precision);
  text += modifier;
  text.push_back(static_cast<char>(conversion.letter));

  const int size = std::snprintf(nullptr, 0, text.c_str(), conversion.width, value);
  std::vector<char> printed(static_cast<size_t>(std::max(size, 0)) + 1);
  std::snprintf(printed.data(), printed.size(), text.c_str(), conversion.width, value);
  out.insert(out.end(), printed.begin(), printed.end() - 1);
}

}  // namespace

CFStringRef HostFormatString(const HostCFString& format, va_list arguments) {
  HostFormatter formatter(format.Text(), arguments);
  if (!formatter.Run()) return nullptr;
  const std::vector<UniChar>& units = formatter.Result();
  return HostCFString::Create(HostTextView{nullptr, units.data(), units.size()});
}
