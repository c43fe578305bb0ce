#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/plist/reader.h"
#include "platform/host/plist/xml_names.h"

// HostXMLMarkup is the half of the XML reader that knows markup but no values: prolog, comments,
// tags with their attributes, and the text between tags. It copies only text that contains
// entities, comments or CDATA sections. One thread.
class HostXMLMarkup : protected HostPlistReader {
 protected:
  using HostPlistReader::HostPlistReader;

  struct StartTag {
    const UInt8* begin;
    HostXMLElement element;
    bool isEmpty;  // <element/>
  };
  // The text of an element; either a part of the input or the scratch buffer, good until the next
  // text is read.
  struct Text {
    const UInt8* bytes;
    size_t count;
    bool isASCII;

    std::string_view View() const { return {reinterpret_cast<const char*>(bytes), count}; }
  };

  static bool IsBlank(UInt8 byte) { return (kClasses[byte] & kBlank) != 0; }

  bool FailAtEnd(const std::string& missing);
  // There is a byte from `from` to `to` that no text may have, or else there was no memory.
  bool FailNotText(const UInt8* from, const UInt8* to);

  bool SkipBlanks() {
    const UInt8* const from = at;
    while (at < end && IsBlank(*at)) ++at;
    return at != from;
  }
  // White space, comments and instructions between elements.
  bool SkipMisc(bool mayHaveDoctype = false);
  // At "<?xml".
  bool ReadDeclaration();

  bool ReadStartTag(StartTag* tag) {
    tag->begin = at;
    if (Left() <= sizeof(uint64_t) || *at != '<') return ReadUnusualStartTag(tag);
    const uint64_t word = HostLoadBig64(at + 1);
    tag->element = kHostXMLGuesses[HostXMLGuessHash(static_cast<UInt32>(word >> 32))];
    tag->isEmpty = kHostXMLEmptyTagWords[static_cast<size_t>(tag->element)].Is(word);
    if (!tag->isEmpty && !HostXMLTagWordOf(tag->element).Is(word)) return ReadUnusualStartTag(tag);
    at += HostXMLNameOf(tag->element).size() + (tag->isEmpty ? 3 : 2);
    return true;
  }
  // At "</"; `element` is what it must close.
  bool ReadEndTag(HostXMLElement element) {
    if (Left() < 2 + sizeof(uint64_t) || !HostXMLTagWordOf(element).Is(HostLoadBig64(at + 2))) {
      return ReadUnusualEndTag(element);
    }
    at += HostXMLNameOf(element).size() + 3;
    return true;
  }
  // The text up to the end tag, which is read too.
  bool ReadText(const StartTag& tag, Text* text) {
    const UInt8* const from = at;
    uint64_t high = 0;
    at = HostFindEither(at, end, '<', '&', &high);
    if (!Follows("</")) return GatherText(tag, from, text);
    *text = {from, static_cast<size_t>(at - from), high == 0};
    return ReadEndTag(tag.element);
  }

 private:
  // What a byte can be in markup.
  static constexpr UInt8 kBlank = 1;
  static constexpr UInt8 kNameStart = 2;
  static constexpr UInt8 kNamePart = 4;

  static constexpr std::array<UInt8, 256> kClasses = [] {
    std::array<UInt8, 256> table{};
    for (int c = 0; c < 256; ++c) {
      const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      // Names of other characters are well-formed XML, but nobody has a use for them here.
      if (isLetter || c == '_' || c == ':') table[c] = kNameStart | kNamePart;
      if ((c >= '0' && c <= '9') || c == '-' || c == '.') table[c] = kNamePart;
    }
    for (const char c : {' ', '\t', '\r', '\n'}) table[static_cast<UInt8>(c)] = kBlank;
    return table;
  }();

  static bool IsText(const UInt8* from, const UInt8* to) {
    return HostFindBadUTF8(from, to) == to &&
           std::memchr(from, 0, static_cast<size_t>(to - from)) == nullptr;
  }
  std::string_view TakeName();

  bool CheckEncoding(const UInt8* where, std::string_view name);
  bool ReadDoctype();
  bool ReadLiteral(bool isPublic);
  bool SkipComment();
  bool SkipInstruction();
  bool ReadAttribute(std::string_view* name, std::string_view* value);
  bool FinishTag(bool* isEmpty);
  bool ReadUnusualStartTag(StartTag* tag);
  bool ReadUnusualEndTag(HostXMLElement element);
  bool ReadReference(UInt8* out, size_t* count);
  bool GatherText(const StartTag& tag, const UInt8* from, Text* text);

  std::vector<UInt8> scratch;
};
