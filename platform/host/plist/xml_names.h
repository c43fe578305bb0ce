#pragma once

#include <CoreFoundation/CFBase.h>

#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

// The elements of property lists in XML, and tables to recognise their tags eight bytes at a time.
// Constants and pure functions; any thread.

enum class HostXMLElement : UInt8 {
  kKey,
  kTrue,
  kReal,
  kData,
  kDate,
  kDict,
  kFalse,
  kArray,
  kPlist,
  kString,
  kInteger,
  kUnknown,
};

// In the order of the elements; an unknown one has no name.
inline constexpr std::string_view kHostXMLNames[] = {
    "key", "true", "real", "data", "date", "dict", "false", "array", "plist", "string", "integer"};

// How nearly all files begin; the first is what the writer writes. (Others mean the same: the
// reader only has less to do for these.)
inline constexpr std::string_view kHostXMLHeads[] = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n",
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n",
};

inline std::string_view HostXMLNameOf(HostXMLElement element) {
  return kHostXMLNames[static_cast<size_t>(element)];
}
inline std::string HostXMLTag(std::string_view name) { return "<" + std::string(name) + ">"; }

// A tag without white space and attributes, such as "key>" or "true/>", as a number: the eight
// bytes after the <, shifted. Longer tags have no such number.
struct HostXMLTagWord {
  uint64_t word = 0;
  int shift = 64;

  bool Is(uint64_t eightBytes) const { return shift < 64 && eightBytes >> shift == word; }
};

constexpr std::array<HostXMLTagWord, std::size(kHostXMLNames)> HostXMLTagWords(
    std::string_view end) {
  std::array<HostXMLTagWord, std::size(kHostXMLNames)> words;
  for (size_t i = 0; i < words.size(); ++i) {
    const size_t size = kHostXMLNames[i].size() + end.size();
    if (size > sizeof(uint64_t)) continue;
    uint64_t& word = words[i].word;
    for (const char c : kHostXMLNames[i]) word = word << 8 | static_cast<UInt8>(c);
    for (const char c : end) word = word << 8 | static_cast<UInt8>(c);
    words[i].shift = 64 - static_cast<int>(size) * 8;
  }
  return words;
}
inline constexpr auto kHostXMLTagWords = HostXMLTagWords(">");
inline constexpr auto kHostXMLEmptyTagWords = HostXMLTagWords("/>");

inline const HostXMLTagWord& HostXMLTagWordOf(HostXMLElement element) {
  return kHostXMLTagWords[static_cast<size_t>(element)];
}

// The element that a name beginning with these four letters can be of: the elements in the order of
// a hash under which no two of them meet.
constexpr UInt32 HostXMLGuessHash(UInt32 letters) { return (letters * 0xEC007B1Bu) >> 28; }

inline constexpr std::array<HostXMLElement, 16> kHostXMLGuesses = [] {
  std::array<HostXMLElement, 16> guesses;
  guesses.fill(HostXMLElement::kKey);
  for (size_t i = 0; i < std::size(kHostXMLNames); ++i) {
    UInt32 letters = 0;
    for (size_t j = 0; j < 4; ++j) {
      const char c = j < kHostXMLNames[i].size() ? kHostXMLNames[i][j] : '>';
      letters = letters << 8 | static_cast<UInt8>(c);
    }
    guesses[HostXMLGuessHash(letters)] = static_cast<HostXMLElement>(i);
  }
  return guesses;
}();
