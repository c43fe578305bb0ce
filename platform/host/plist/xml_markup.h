#pragma once

#include <string_view>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/plist/xml_names.h"
#include "platform/host/plist/xml_prolog.h"

// HostXMLMarkup reads tags with their attributes, and the text between tags; it knows nothing of
// values. It copies only text that contains entities, comments or CDATA sections. A tag without
// attributes, such as property lists have, is recognised by comparing one word; every other form
// takes the slower path of ReadUnusualStartTag and ReadUnusualEndTag. One thread.
class HostXMLMarkup : protected HostXMLProlog {
 protected:
  using HostXMLProlog::HostXMLProlog;

  struct StartTag {
    const UInt8* begin;
    HostXMLElement element;
    bool isEmpty;  // <element/>
  };
  // The text of an element, valid until the next text is read: a part of the input or the scratch
  // buffer.
  struct Text {
    const UInt8* bytes;
    size_t count;
    bool isASCII;

    std::string_view View() const { return {reinterpret_cast<const char*>(bytes), count}; }
  };

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
  // Reads the end tag of `element`; "</" is here.
  bool ReadEndTag(HostXMLElement element) {
    if (Left() < 2 + sizeof(uint64_t) || !HostXMLTagWordOf(element).Is(HostLoadBig64(at + 2))) {
      return ReadUnusualEndTag(element);
    }
    at += HostXMLNameOf(element).size() + 3;
    return true;
  }
  // Reads the text up to the end tag, and that tag.
  bool ReadText(const StartTag& tag, Text* text) {
    const UInt8* const from = at;
    uint64_t high = 0;
    at = HostFindEither(at, end, '<', '&', &high);
    if (!Follows("</")) return GatherText(tag, from, text);
    *text = {from, static_cast<size_t>(at - from), high == 0};
    return ReadEndTag(tag.element);
  }

 private:
  bool FinishTag(bool* isEmpty);
  bool ReadUnusualStartTag(StartTag* tag);
  bool ReadUnusualEndTag(HostXMLElement element);
  bool GatherText(const StartTag& tag, const UInt8* from, Text* text);

  std::vector<UInt8> scratch;
};
