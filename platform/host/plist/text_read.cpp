#include "platform/host/plist/text_read.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/host/objects/cf_data.h"
#include "platform/host/plist/reader.h"

namespace {

constexpr size_t kLeastItem = 2;  // a,

// The NextStep encoding, bytes 0x80 to 0xFF; 0 where the byte means nothing. Octal escapes use it.
constexpr UniChar kNextStep[128] = {
    0x00A0, 0x00C0, 0x00C1, 0x00C2, 0x00C3, 0x00C4, 0x00C5, 0x00C7, 0x00C8, 0x00C9, 0x00CA, 0x00CB,
    0x00CC, 0x00CD, 0x00CE, 0x00CF, 0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D6, 0x00D9,
    0x00DA, 0x00DB, 0x00DC, 0x00DD, 0x00DE, 0x00B5, 0x00D7, 0x00F7, 0x00A9, 0x00A1, 0x00A2, 0x00A3,
    0x2044, 0x00A5, 0x0192, 0x00A7, 0x00A4, 0x2019, 0x201C, 0x00AB, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x00AE, 0x2013, 0x2020, 0x2021, 0x00B7, 0x00A6, 0x00B6, 0x2022, 0x201A, 0x201E, 0x201D, 0x00BB,
    0x2026, 0x2030, 0x00AC, 0x00BF, 0x00B9, 0x02CB, 0x00B4, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9,
    0x00A8, 0x00B2, 0x02DA, 0x00B8, 0x00B3, 0x02DD, 0x02DB, 0x02C7, 0x2014, 0x00B1, 0x00BC, 0x00BD,
    0x00BE, 0x00E0, 0x00E1, 0x00E2, 0x00E3, 0x00E4, 0x00E5, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB,
    0x00EC, 0x00C6, 0x00ED, 0x00AA, 0x00EE, 0x00EF, 0x00F0, 0x00F1, 0x0141, 0x00D8, 0x0152, 0x00BA,
    0x00F2, 0x00F3, 0x00F4, 0x00F5, 0x00F6, 0x00E6, 0x00F9, 0x00FA, 0x00FB, 0x0131, 0x00FC, 0x00FD,
    0x0142, 0x00F8, 0x0153, 0x00DF, 0x00FE, 0x00FF, 0,      0,
};

bool IsBlank(UInt8 c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool IsBare(UInt8 c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
}

int DigitOf(UInt8 c, int base) {
  const int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : 16;
  return digit < base ? digit : -1;
}

// TextReader reads the old form: braces, parentheses and semicolons.
class TextReader : private HostPlistReader {
 public:
  // inputSize is that of the file, before it became UTF-8.
  TextReader(const HostPlistText& text, size_t inputSize, const HostPlistRequest& request,
             HostPropertyListError* error)
      : HostPlistReader(text, inputSize, kLeastItem, request, error) {}

  CFPropertyListRef Read();

 private:
  using Kind = HostPlistBuilder::Kind;

  bool FailAtEnd() { return Fail(end, "the file ends too early", "it may have been cut short"); }

  bool Skip();
  bool AddASCII(const UInt8* text, size_t count, bool asKey);
  bool ReadText(bool asKey);
  bool ReadQuoted(bool asKey);
  bool DecodeQuoted(const UInt8* from, const UInt8* to, size_t* used);
  bool ReadEscape(const UInt8*& from, const UInt8* to, UniChar* unit);
  bool ReadData();

  bool ReadAll();
  bool ReadItems();
  bool ReadKey();
  bool ReadValue();
  bool FinishItem();
  bool Close();

  bool isBareDictionary = false;  // the outermost dictionary has no braces
  std::vector<UniChar> units;
};

// White space and comments.
bool TextReader::Skip() {
  for (;;) {
    while (at < end && IsBlank(*at)) ++at;
    if (end - at < 2 || at[0] != '/' || (at[1] != '/' && at[1] != '*')) return true;
    const UInt8* const from = at;
    const bool isLine = at[1] == '/';
    const std::string_view rest(reinterpret_cast<const char*>(at) + 2,
                                static_cast<size_t>(end - at) - 2);
    const size_t close = isLine ? rest.find_first_of("\n\r") : rest.find("*/");
    if (close == std::string_view::npos && !isLine) {
      return Fail(from, "this comment is never closed");
    }
    at = close == std::string_view::npos ? end : at + 2 + close + (isLine ? 1 : 2);
  }
}

// Strings.

// Short texts often occur again, so they are shared.
bool TextReader::AddASCII(const UInt8* text, size_t count, bool asKey) {
  constexpr size_t kShort = 16;
  const bool added =
      asKey || count <= kShort ? builder.AddKey(text, count) : builder.AddString(text, count);
  return added || FailBuilding(text);
}

bool TextReader::ReadText(bool asKey) {
  if (at == end) return FailAtEnd();
  if (*at == '"' || *at == '\'') return ReadQuoted(asKey);
  const UInt8* const from = at;
  while (at < end && IsBare(*at)) ++at;
  if (at == from) {
    return Fail(at, asKey ? "expected a key here" : "expected a value here",
                "put text with other characters than letters, digits and _$/:.- into quotation "
                "marks");
  }
  return AddASCII(from, static_cast<size_t>(at - from), asKey);
}

bool TextReader::ReadQuoted(bool asKey) {
  const UInt8* const open = at++;
  const UInt8* const from = at;
  uint64_t notPlain = 0;
  for (;;) {
    at = HostFindEither(at, end, *open, '\\', &notPlain);
    if (at == end) return Fail(open, "this quotation mark is never closed");
    if (*at == 0) return Fail(at, "a NUL byte");
    if (*at == *open) break;
    notPlain = 1;
    at += end - at > 1 ? 2 : 1;
  }
  const UInt8* const to = at++;
  const auto count = static_cast<size_t>(to - from);
  if (notPlain == 0) return AddASCII(from, count, asKey);
  if (!builder.Charge(count * sizeof(UniChar))) return FailBuilding(open);
  units.resize(count);
  size_t used = 0;
  if (!DecodeQuoted(from, to, &used)) return false;
  builder.Refund(count * sizeof(UniChar));
  const HostCFString* string = HostCFString::Create(HostTextView{nullptr, units.data(), used});
  return builder.Add(string, sizeof *string + used * sizeof(UniChar)) || FailBuilding(open);
}

// Into `units`, which have room for as many as there are bytes.
bool TextReader::DecodeQuoted(const UInt8* from, const UInt8* to, size_t* used) {
  while (from < to) {
    if (*from == '\\') {
      if (!ReadEscape(from, to, &units[*used])) return false;
      ++*used;
      continue;
    }
    const void* escape = std::memchr(from, '\\', static_cast<size_t>(to - from));
    const UInt8* const stop = escape != nullptr ? static_cast<const UInt8*>(escape) : to;
    size_t count = 0;
    if (!HostDecodeText(kCFStringEncodingUTF8, from, static_cast<size_t>(stop - from), false,
                        &units[*used], &count)) {
      return FailNotUTF8(HostFindBadUTF8(from, stop));
    }
    *used += count;
    from = stop;
  }
  return true;
}

// Reads the unit of the escape that begins with the backslash at `from`; moves `from` after it.
bool TextReader::ReadEscape(const UInt8*& from, const UInt8* to, UniChar* unit) {
  const UInt8* const backslash = from++;
  const UInt8 letter = *from++;
  if (letter == 0) return Fail(from - 1, "a NUL byte");
  constexpr char kLetters[] = "abfnrtv";
  constexpr char kMeanings[] = "\a\b\f\n\r\t\v";
  const char* known = std::strchr(kLetters, letter);
  if (known != nullptr) {
    *unit = static_cast<UInt8>(kMeanings[known - kLetters]);
    return true;
  }
  const int base = letter == 'U' ? 16 : 8;
  if (letter != 'U' && DigitOf(letter, 8) < 0) {
    *unit = letter;  // the backslash itself, quotation marks, a line break
    if (letter < 0x80) return true;
    return Fail(backslash, "this escape is not known");
  }
  UInt32 value = letter == 'U' ? 0 : static_cast<UInt32>(DigitOf(letter, 8));
  int digits = letter == 'U' ? 0 : 1;
  for (const int most = letter == 'U' ? 4 : 3; digits < most && from < to; ++digits, ++from) {
    const int digit = DigitOf(*from, base);
    if (digit < 0) break;
    value = value * static_cast<UInt32>(base) + static_cast<UInt32>(digit);
  }
  if (letter == 'U' && digits != 4) return Fail(backslash, "\\U takes four hexadecimal digits");
  if (letter != 'U' && value >= 0x80) {
    value = value <= 0xFF ? kNextStep[value - 0x80] : 0u;
    if (value == 0) return Fail(backslash, "no character has this number");
  }
  *unit = static_cast<UniChar>(value);
  return true;
}

// <0fbd77 1c>
bool TextReader::ReadData() {
  const UInt8* const open = at++;
  const void* close = std::memchr(at, '>', static_cast<size_t>(end - at));
  if (close == nullptr) return Fail(open, "this < is never closed");
  const auto* const to = static_cast<const UInt8*>(close);
  UInt8* bytes = nullptr;
  const size_t room = static_cast<size_t>(to - at) / 2 + 1;
  auto* data = HostCFData::CreateToFill(room, &bytes, builder.Pool());
  if (!builder.Add(data, sizeof *data + room)) return FailBuilding(open);
  size_t digits = 0;
  for (; at < to; ++at) {
    const int digit = DigitOf(*at, 16);
    if (digit >= 0) {
      UInt8& byte = bytes[digits++ / 2];
      byte = static_cast<UInt8>(byte << 4 | digit);
    } else if (!IsBlank(*at)) {
      return Fail(at, "this is no hexadecimal digit");
    }
  }
  ++at;
  if (digits % 2 != 0) return Fail(open, "data has an odd number of digits");
  data->Finish(digits / 2);
  return true;
}

// Values.

// Reads a leaf and the separator after it, or the beginning of a container.
bool TextReader::ReadValue() {
  if (at == end) return FailAtEnd();
  if (*at == '{' || *at == '(') {
    if (!builder.Open(*at == '{' ? Kind::kDictionary : Kind::kArray)) return FailBuilding(at);
    ++at;
    return true;
  }
  return (*at == '<' ? ReadData() : ReadText(false)) && FinishItem();
}

// Reads the separator that follows a value in its container.
bool TextReader::FinishItem() {
  if (!builder.IsInside()) return true;
  if (!Skip()) return false;
  if (at == end) return FailAtEnd();
  if (builder.Innermost() == Kind::kArray) {
    if (*at == ',')
      ++at;
    else if (*at != ')')
      return Fail(at, "expected \",\" or \")\" here");
    return true;
  }
  if (*at != ';') return Fail(at, "expected \";\" here");
  ++at;
  return true;
}

bool TextReader::Close() {
  ++at;
  return (builder.Close() || FailBuilding(at)) && FinishItem();
}

// Reads a key of a dictionary with the = or ; after it, or the end of the dictionary.
bool TextReader::ReadKey() {
  if (*at == '}' && !(isBareDictionary && builder.Depth() == 1)) return Close();
  if (!ReadText(true) || !Skip()) return false;
  if (at == end) return FailAtEnd();
  if (*at == ';' && !builder.AddKeyAsValue()) return FailBuilding(at);
  if (*at != ';' && *at != '=') return Fail(at, "expected \"=\" or \";\" here");
  ++at;
  return true;
}

// Reads the items of the open containers until all of these are closed.
bool TextReader::ReadItems() {
  while (builder.IsInside()) {
    if (!Skip()) return false;
    const bool isEndOfAll = isBareDictionary && builder.Depth() == 1 && builder.NeedsKey();
    if (at == end) return isEndOfAll ? builder.Close() || FailBuilding(at) : FailAtEnd();
    if (builder.NeedsKey()) {
      if (!ReadKey()) return false;
    } else if (*at == ')' && builder.Innermost() == Kind::kArray) {
      if (!Close()) return false;
    } else if (!ReadValue()) {
      return false;
    }
  }
  return true;
}

// Reads one value, or pairs without braces: a text followed by = or ; is their first key.
bool TextReader::ReadAll() {
  if (!Skip()) return false;
  if (at == end) return Fail(at, "there is nothing in the file");
  const UInt8* const from = at;
  const bool isText = *at == '"' || *at == '\'' || IsBare(*at);
  if (!ReadValue() || !ReadItems() || !Skip()) return false;
  if (isText && at < end && (*at == '=' || *at == ';')) {
    CFRelease(builder.TakeRoot());
    at = from;
    isBareDictionary = true;
    if (!builder.Open(Kind::kDictionary)) return FailBuilding(at);
    if (!ReadItems()) return false;
  }
  return at == end || Fail(at, "something follows the end of the list");
}

CFPropertyListRef TextReader::Read() { return Begin() && ReadAll() ? builder.TakeRoot() : nullptr; }

}  // namespace

CFPropertyListRef HostReadPlistText(const UInt8* bytes, size_t count,
                                    const HostPlistRequest& request, HostPropertyListError* error) {
  std::vector<UInt8> converted;
  const HostPlistText text = HostTakePlistText(bytes, count, &converted);
  return TextReader(text, count, request, error).Read();
}
