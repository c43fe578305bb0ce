#include "platform/host/plist/xml_scanner.h"

#include <charconv>

namespace {

// Returns the character with a number written as 65 or x41, or 0 if there is none.
UInt32 CharacterOf(std::string_view number) {
  const bool isHexadecimal = number.starts_with('x');
  if (isHexadecimal) number.remove_prefix(1);
  const char* const last = number.data() + number.size();
  UInt32 scalar = 0;
  const auto [stop, error] = std::from_chars(number.data(), last, scalar, isHexadecimal ? 16 : 10);
  const bool isSurrogate = scalar >= 0xD800 && scalar < 0xE000;
  if (stop != last || error != std::errc() || isSurrogate || scalar > 0x10FFFF) return 0;
  return scalar;
}

}  // namespace

bool HostXMLScanner::FailAtEnd(const std::string& missing) {
  return Fail(end, "the file ends before " + missing, "it may have been cut short");
}

bool HostXMLScanner::FailNotText(const UInt8* from, const UInt8* to) {
  const UInt8* bad = HostFindBadUTF8(from, to);
  const void* nul = std::memchr(from, 0, static_cast<size_t>(bad - from));
  if (nul != nullptr) {
    return Fail(static_cast<const UInt8*>(nul), "a NUL byte, which no XML text may have");
  }
  if (bad == to) return Fail(from, kHostPlistNoMemory);
  return FailNotUTF8(bad);
}

std::string_view HostXMLScanner::TakeName() {
  const UInt8* const from = at;
  if (at < end && (kClasses[*at] & kNameStart) != 0) {
    do ++at;
    while (at < end && (kClasses[*at] & kNamePart) != 0);
  }
  return {reinterpret_cast<const char*>(from), static_cast<size_t>(at - from)};
}

bool HostXMLScanner::ReadAttribute(std::string_view* name, std::string_view* value) {
  const UInt8* const from = at;
  *name = TakeName();
  SkipBlanks();
  if (name->empty() || at == end || *at != '=') return Fail(from, "this attribute is malformed");
  ++at;
  SkipBlanks();
  if (at == end || (*at != '"' && *at != '\'')) {
    return Fail(at, "the value of an attribute stands in quotation marks");
  }
  const UInt8 quote = *at;
  const UInt8* const open = at++;
  while (at < end && *at != quote) {
    if (*at == '<') return Fail(at, "a value of an attribute must not have < in it");
    UInt8 ignored[4];
    size_t count = 0;
    if (*at != '&')
      ++at;
    else if (!ReadReference(ignored, &count))
      return false;
  }
  if (at == end) return Fail(open, "this quotation mark is never closed");
  *value = {reinterpret_cast<const char*>(open + 1), static_cast<size_t>(at - open - 1)};
  ++at;
  return IsText(from, at) || FailNotText(from, at);
}

bool HostXMLScanner::ReadReference(UInt8* out, size_t* count) {
  constexpr size_t kLongest = 16;
  const UInt8* const from = at;
  const void* semicolon = std::memchr(at, ';', Left() < kLongest ? Left() : kLongest);
  if (semicolon == nullptr)
    return Fail(at, "& begins no entity here", "write &amp; for the character");
  at = static_cast<const UInt8*>(semicolon) + 1;
  const std::string_view name(reinterpret_cast<const char*>(from) + 1,
                              static_cast<size_t>(at - from) - 2);
  constexpr struct {
    std::string_view name;
    char character;
  } kEntities[] = {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"apos", '\''}, {"quot", '"'}};
  for (const auto& entity : kEntities) {
    if (entity.name != name) continue;
    *out = static_cast<UInt8>(entity.character);
    *count = 1;
    return true;
  }
  if (!name.starts_with('#')) {
    return Fail(from, "there is no such entity", "known are &amp; &lt; &gt; &apos; &quot;");
  }
  const UInt32 scalar = CharacterOf(name.substr(1));
  if (scalar == 0) return Fail(from, "this is no number of a character");
  *count = HostPutUTF8(scalar, out);
  return true;
}
