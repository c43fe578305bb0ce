#pragma once

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/host/plist/reader.h"

// HostXMLScanner is the lowest part of the XML reader: white space, names, attributes, references,
// and the errors that all of XML can have. HostXMLProlog (xml_prolog.h), HostXMLMarkup
// (xml_markup.h) and the reader of values (xml_read.cpp) are built on it, each on the one before. A
// function that returns bool returns false after a failure, which Fail has stored. One thread.
class HostXMLScanner : protected HostPlistReader {
 protected:
  using HostPlistReader::HostPlistReader;

  static bool IsBlank(UInt8 byte) { return (kClasses[byte] & kBlank) != 0; }
  static bool IsText(const UInt8* from, const UInt8* to) {
    return HostFindBadUTF8(from, to) == to &&
           std::memchr(from, 0, static_cast<size_t>(to - from)) == nullptr;
  }

  bool FailAtEnd(const std::string& missing);
  // Reports the byte from `from` to `to` that no text may have, or a lack of memory if there is
  // none.
  bool FailNotText(const UInt8* from, const UInt8* to);

  bool SkipBlanks() {
    const UInt8* const from = at;
    while (at < end && IsBlank(*at)) ++at;
    return at != from;
  }
  // Returns the name that begins here, or "".
  std::string_view TakeName();
  bool ReadAttribute(std::string_view* name, std::string_view* value);
  // Reads the reference that begins with the "&" here. Stores what it stands for as UTF-8, in
  // `*count` bytes, at most 4.
  bool ReadReference(UInt8* out, size_t* count);

 private:
  // The uses of a byte in markup.
  static constexpr UInt8 kBlank = 1;
  static constexpr UInt8 kNameStart = 2;
  static constexpr UInt8 kNamePart = 4;

  static constexpr std::array<UInt8, 256> kClasses = [] {
    std::array<UInt8, 256> table{};
    for (int c = 0; c < 256; ++c) {
      const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      // Names with other characters are well-formed XML, but property lists have no such names.
      if (isLetter || c == '_' || c == ':') table[c] = kNameStart | kNamePart;
      if ((c >= '0' && c <= '9') || c == '-' || c == '.') table[c] = kNamePart;
    }
    for (const char c : {' ', '\t', '\r', '\n'}) table[static_cast<UInt8>(c)] = kBlank;
    return table;
  }();
};
