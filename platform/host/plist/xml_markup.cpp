#include "platform/host/plist/xml_markup.h"

#include <cstring>
#include <iterator>

namespace {

std::string EndTag(std::string_view name) { return "</" + std::string(name) + ">"; }

HostXMLElement FindElement(std::string_view name) {
  size_t i = 0;
  while (i < std::size(kHostXMLNames) && kHostXMLNames[i] != name) ++i;
  return static_cast<HostXMLElement>(i);
}

}  // namespace

// Reads what comes after the name: attributes, which mean nothing here, and > or />.
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
    return Fail(from, EndTag(found) + " where " + EndTag(name) + " was expected");
  }
  SkipBlanks();
  if (at == end) return FailAtEnd(EndTag(name));
  if (*at != '>') return Fail(at, "this tag is malformed");
  ++at;
  return true;
}

// Does the work of ReadText for a text of several runs; the first one ends here.
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
