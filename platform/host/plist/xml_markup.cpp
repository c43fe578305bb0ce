#include "platform/host/plist/xml_markup.h"

#include <charconv>
#include <cstring>
#include <iterator>

namespace {

std::string EndTag(std::string_view name) { return "</" + std::string(name) + ">"; }

HostXMLElement FindElement(std::string_view name) {
  size_t i = 0;
  while (i < std::size(kHostXMLNames) && kHostXMLNames[i] != name) ++i;
  return static_cast<HostXMLElement>(i);
}

// The character whose number is written as 65 or x41; 0 when there is no such character.
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

bool HostXMLMarkup::FailAtEnd(const std::string& missing) {
  return Fail(end, "the file ends before " + missing, "it may have been cut short");
}

bool HostXMLMarkup::FailNotText(const UInt8* from, const UInt8* to) {
  const UInt8* bad = HostFindBadUTF8(from, to);
  const void* nul = std::memchr(from, 0, static_cast<size_t>(bad - from));
  if (nul != nullptr) {
    return Fail(static_cast<const UInt8*>(nul), "a NUL byte, which no XML text may have");
  }
  if (bad == to) return Fail(from, kHostPlistNoMemory);
  return FailNotUTF8(bad);
}

std::string_view HostXMLMarkup::TakeName() {
  const UInt8* const from = at;
  if (at < end && (kClasses[*at] & kNameStart) != 0) {
    do ++at;
    while (at < end && (kClasses[*at] & kNamePart) != 0);
  }
  return {reinterpret_cast<const char*>(from), static_cast<size_t>(at - from)};
}

bool HostXMLMarkup::ReadAttribute(std::string_view* name, std::string_view* value) {
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

// What comes behind the name: attributes, which mean nothing here, and > or />.
bool HostXMLMarkup::FinishTag(bool* isEmpty) {
  constexpr size_t kMostAttributes = 16;
  std::string_view names[kMostAttributes];
  size_t count = 0;
  for (;;) {
    const bool blank = SkipBlanks();
    if (at == end) return FailAtEnd("the end of this tag");
    *isEmpty = *at == '/';
    if (*at == '>' || (*isEmpty && Left() > 1 && at[1] == '>')) break;
    if (!blank) return Fail(at, "this tag is malformed");
    const UInt8* const where = at;
    if (count == kMostAttributes) return Fail(at, "this tag has too many attributes");
    std::string_view value;
    if (!ReadAttribute(&names[count], &value)) return false;
    for (size_t i = 0; i < count; ++i) {
      if (names[i] == names[count]) return Fail(where, "this tag has the same attribute twice");
    }
    ++count;
  }
  at += *isEmpty ? 2 : 1;
  return true;
}

bool HostXMLMarkup::ReadUnusualStartTag(StartTag* tag) {
  if (at == end) return FailAtEnd("a value");
  if (*at != '<') return Fail(at, "text that belongs to no element");
  ++at;
  const std::string_view name = TakeName();
  tag->element = FindElement(name);
  if (tag->element == HostXMLElement::kUnknown) {
    if (at == end) return FailAtEnd("the end of this tag");
    if (name.empty())
      return Fail(tag->begin, "< begins no tag here", "write &lt; for the character");
    return Fail(tag->begin, "property lists have no element " + HostXMLTag(name));
  }
  if (at < end && *at == '>') {
    ++at;
    tag->isEmpty = false;
    return true;
  }
  return FinishTag(&tag->isEmpty);
}

bool HostXMLMarkup::ReadUnusualEndTag(HostXMLElement element) {
  const UInt8* const from = at;
  const std::string_view name = HostXMLNameOf(element);
  at += 2;
  const std::string_view found = TakeName();
  if (found != name && at < end) {
    return Fail(from, EndTag(found) + " where " + EndTag(name) + " is due");
  }
  SkipBlanks();
  if (at == end) return FailAtEnd(EndTag(name));
  if (*at != '>') return Fail(at, "this tag is malformed");
  ++at;
  return true;
}

// At "&". Puts what it stands for as UTF-8.
bool HostXMLMarkup::ReadReference(UInt8* out, size_t* count) {
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

// As ReadText, for text that is not one run: `at` is at the end of its first one.
bool HostXMLMarkup::GatherText(const StartTag& tag, const UInt8* from, Text* text) {
  scratch.clear();
  uint64_t high = 0;
  for (;;) {
    scratch.insert(scratch.end(), from, at);
    if (at == end)
      return Fail(tag.begin, HostXMLTag(HostXMLNameOf(tag.element)) + " is never closed");
    if (*at == 0) return FailNotText(at, at + 1);
    if (*at == '&') {
      UInt8 character[4];
      size_t count = 0;
      if (!ReadReference(character, &count)) return false;
      scratch.insert(scratch.end(), character, character + count);
    } else if (Follows("</")) {
      break;
    } else if (Follows("<![CDATA[")) {
      const UInt8* const open = at;
      at += std::strlen("<![CDATA[");
      const UInt8* const first = at;
      const size_t close = std::string_view(reinterpret_cast<const char*>(at), Left()).find("]]>");
      if (close == std::string_view::npos) return Fail(open, "this CDATA section is never closed");
      at += close;
      if (!IsText(first, at)) return FailNotText(first, at);
      scratch.insert(scratch.end(), first, at);
      at += 3;
    } else if (Follows("<!--")) {
      if (!SkipComment()) return false;
    } else if (Follows("<?")) {
      if (!SkipInstruction()) return false;
    } else {
      return Fail(at, HostXMLTag(HostXMLNameOf(tag.element)) + " is not closed before this",
                  "write &lt; for the character <");
    }
    from = at;
    at = HostFindEither(at, end, '<', '&', &high);
  }
  *text = {scratch.data(), scratch.size(), HostIsASCII(scratch.data(), scratch.size())};
  return ReadEndTag(tag.element);
}
