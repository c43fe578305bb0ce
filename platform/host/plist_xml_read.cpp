#include <array>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/byte_order.h"
#include "platform/host/cf_data.h"
#include "platform/host/plist_builder.h"
#include "platform/host/plist_codec.h"
#include "platform/host/plist_text.h"
#include "platform/host/plist_values.h"

namespace {

constexpr size_t kMemoryFactor = 8;
constexpr size_t kLeastItem = 7;  // <true/>

enum class Element : UInt8 {
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
constexpr std::string_view kNames[] = {"key",   "true",  "real",  "data",   "date",   "dict",
                                       "false", "array", "plist", "string", "integer"};

// What a byte can be in markup.
constexpr UInt8 kBlank = 1;
constexpr UInt8 kNameStart = 2;
constexpr UInt8 kNamePart = 4;

constexpr std::array<UInt8, 256> kClasses = [] {
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

bool IsBlank(UInt8 byte) { return (kClasses[byte] & kBlank) != 0; }

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(static_cast<UInt8>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && IsBlank(static_cast<UInt8>(text.back()))) text.remove_suffix(1);
  return text;
}

std::string Tag(std::string_view name) { return "<" + std::string(name) + ">"; }
std::string EndTag(std::string_view name) { return "</" + std::string(name) + ">"; }

// A tag without blanks and attributes, "key>" or "true/>", as a number: what the eight bytes behind
// the < give when they are shifted. Longer ones have none.
struct TagWord {
  uint64_t word = 0;
  int shift = 64;

  bool Is(uint64_t eightBytes) const { return shift < 64 && eightBytes >> shift == word; }
};

constexpr std::array<TagWord, std::size(kNames)> TagWords(std::string_view end) {
  std::array<TagWord, std::size(kNames)> words;
  for (size_t i = 0; i < words.size(); ++i) {
    const size_t size = kNames[i].size() + end.size();
    if (size > sizeof(uint64_t)) continue;
    for (const char c : kNames[i]) words[i].word = words[i].word << 8 | static_cast<UInt8>(c);
    for (const char c : end) words[i].word = words[i].word << 8 | static_cast<UInt8>(c);
    words[i].shift = 64 - static_cast<int>(size) * 8;
  }
  return words;
}
constexpr auto kTagWords = TagWords(">");
constexpr auto kEmptyTagWords = TagWords("/>");

const TagWord& WordOf(Element element) { return kTagWords[static_cast<size_t>(element)]; }

// The element that a name beginning with these four letters can be of: the elements in the order of
// a hash under which no two of them meet.
constexpr UInt32 GuessHash(UInt32 letters) { return (letters * 0xEC007B1Bu) >> 28; }

constexpr std::array<Element, 16> kGuesses = [] {
  std::array<Element, 16> guesses;
  guesses.fill(Element::kKey);
  for (size_t i = 0; i < std::size(kNames); ++i) {
    UInt32 letters = 0;
    for (size_t j = 0; j < 4; ++j) {
      const char c = j < kNames[i].size() ? kNames[i][j] : '>';
      letters = letters << 8 | static_cast<UInt8>(c);
    }
    guesses[GuessHash(letters)] = static_cast<Element>(i);
  }
  return guesses;
}();

Element FindElement(std::string_view name) {
  size_t i = 0;
  while (i < std::size(kNames) && kNames[i] != name) ++i;
  return static_cast<Element>(i);
}
std::string_view NameOf(Element element) { return kNames[static_cast<size_t>(element)]; }

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

// XMLReader goes through UTF-8 text from front to back. A function that reads something returns
// false when it is not as it should be; the error is then in place and the reader is finished.
// Nothing of the text is copied but what has entities, comments or CDATA sections in it.
class XMLReader {
 public:
  // inputSize is that of the file, before it became UTF-8.
  XMLReader(const HostPlistText& text, size_t inputSize, CFOptionFlags mutability,
            HostPropertyListError* error)
      : begin(text.bytes),
        end(text.bytes + text.count),
        at(text.bytes),
        input(text),
        error(error),
        builder(inputSize, kMemoryFactor, kLeastItem, mutability) {}

  CFPropertyListRef Read();

 private:
  struct StartTag {
    const UInt8* begin;
    Element element;
    bool isEmpty;  // <element/>
  };
  // The text of an element; either a part of the input or the scratch buffer.
  struct Text {
    const UInt8* bytes;
    size_t count;
    bool isASCII;

    std::string_view View() const { return {reinterpret_cast<const char*>(bytes), count}; }
  };

  bool Fail(const UInt8* where, std::string text, std::string hint = "");
  bool FailBuilding(const UInt8* where) { return Fail(where, builder.Problem()); }
  bool FailAtEnd(const std::string& missing);
  bool FailNotText(const UInt8* from, const UInt8* to);

  size_t Left() const { return static_cast<size_t>(end - at); }
  bool Follows(std::string_view text) const {
    return Left() >= text.size() && std::memcmp(at, text.data(), text.size()) == 0;
  }
  bool SkipBlanks() {
    const UInt8* const from = at;
    while (at < end && IsBlank(*at)) ++at;
    return at != from;
  }
  std::string_view TakeName();
  bool IsText(const UInt8* from, const UInt8* to) {
    return HostFindBadUTF8(from, to) == to &&
           std::memchr(from, 0, static_cast<size_t>(to - from)) == nullptr;
  }

  bool ReadDeclaration();
  bool CheckEncoding(const UInt8* where, std::string_view name);
  bool ReadDoctype();
  bool ReadLiteral(bool isPublic);
  bool SkipComment();
  bool SkipInstruction();
  bool SkipMisc(bool mayHaveDoctype = false);
  bool ReadAttribute(std::string_view* name, std::string_view* value);
  bool FinishTag(bool* isEmpty);
  bool ReadStartTag(StartTag* tag);
  bool ReadEndTag(Element element);
  bool ReadReference(UInt8* out, size_t* count);
  bool ReadText(const StartTag& tag, Text* text);
  bool GatherText(const StartTag& tag, const UInt8* from, Text* text);

  bool ReadEnvelope();
  void SkipIndentation();
  bool ReadValue();
  bool ReadElement(const StartTag& tag);
  bool CheckPlace(const StartTag& tag);
  bool CloseContainer();
  bool ReadLeaf(const StartTag& tag);
  bool AddText(const StartTag& tag, const Text& text, const UInt8* from);
  bool AddInteger(const StartTag& tag, std::string_view text);
  bool AddReal(const StartTag& tag, std::string_view text);
  bool AddDate(const StartTag& tag, std::string_view text);
  bool AddData(const StartTag& tag, const Text& text, const UInt8* from);

  const UInt8* const begin;
  const UInt8* const end;
  const UInt8* at;
  const HostPlistText input;
  HostPropertyListError* const error;
  HostPlistBuilder builder;
  std::vector<UInt8> scratch;
};

bool XMLReader::Fail(const UInt8* where, std::string text, std::string hint) {
  const HostTextPlace place = HostFindPlace(begin, where);
  error->text = std::move(text);
  error->hint = std::move(hint);
  error->offset = static_cast<size_t>(where - begin);
  error->line = place.line + 1;
  error->column = place.column + 1;
  return false;
}

bool XMLReader::FailAtEnd(const std::string& missing) {
  return Fail(end, "the file ends before " + missing, "it may have been cut short");
}

// There is a byte from `from` to `to` that no text may have, or else there was no memory.
bool XMLReader::FailNotText(const UInt8* from, const UInt8* to) {
  const UInt8* bad = HostFindBadUTF8(from, to);
  const void* nul = std::memchr(from, 0, static_cast<size_t>(bad - from));
  if (nul != nullptr) {
    return Fail(static_cast<const UInt8*>(nul), "a NUL byte, which no XML text may have");
  }
  if (bad == to) return Fail(from, "there is no memory left");
  return Fail(bad, "the bytes are not UTF-8",
              "save the file as UTF-8, or as UTF-16 with a byte-order mark");
}

std::string_view XMLReader::TakeName() {
  const UInt8* const from = at;
  if (at < end && (kClasses[*at] & kNameStart) != 0) {
    do ++at;
    while (at < end && (kClasses[*at] & kNamePart) != 0);
  }
  return {reinterpret_cast<const char*>(from), static_cast<size_t>(at - from)};
}

// Prolog, comments and instructions.

bool XMLReader::CheckEncoding(const UInt8* where, std::string_view name) {
  std::string lower;
  for (const char c : name) {
    lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  // What came as UTF-16 was recognised by its mark and is UTF-8 by now.
  if (input.wasUTF16) return true;
  for (const char* known : {"utf-8", "utf8", "us-ascii", "ascii"}) {
    if (lower == known) return true;
  }
  if (lower.starts_with("utf-16")) {
    return Fail(where, "the declaration says UTF-16, but there is no byte-order mark");
  }
  return Fail(where, "the encoding " + std::string(name) + " cannot be read",
              "convert the file to UTF-8 and change its declaration");
}

bool XMLReader::ReadDeclaration() {
  const UInt8* const from = at;
  at += std::strlen("<?xml");
  constexpr std::string_view kOrder[] = {"version", "encoding", "standalone"};
  size_t next = 0;
  for (;;) {
    const bool blank = SkipBlanks();
    if (Follows("?>")) break;
    if (at == end) return FailAtEnd("the end of the XML declaration");
    const UInt8* const where = at;
    std::string_view name, value;
    if (!blank) return Fail(at, "the XML declaration is malformed");
    if (!ReadAttribute(&name, &value)) return false;
    const size_t earliest = next;
    while (next < std::size(kOrder) && kOrder[next] != name) ++next;
    if (next == std::size(kOrder) || (earliest == 0 && next != 0)) {
      return Fail(where, "the XML declaration is malformed",
                  "it says <?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    }
    ++next;
    if (name == "encoding" && !CheckEncoding(where, value)) return false;
    if (name == "standalone" && value != "yes" && value != "no") {
      return Fail(where, "standalone is yes or no");
    }
    if (name == "version" && !value.starts_with("1.")) {
      return Fail(where, "this is not XML 1.0");
    }
  }
  if (next == 0) return Fail(from, "the XML declaration has no version");
  at += 2;
  return true;
}

// A public identifier has only some characters, a system identifier any.
bool XMLReader::ReadLiteral(bool isPublic) {
  SkipBlanks();
  if (at == end) return FailAtEnd("the end of the document type");
  const UInt8 quote = *at;
  if (quote != '"' && quote != '\'') return Fail(at, "the document type is malformed");
  const void* close = std::memchr(at + 1, quote, Left() - 1);
  if (close == nullptr) return Fail(at, "this quotation mark is never closed");
  const UInt8* const from = at;
  at = static_cast<const UInt8*>(close) + 1;
  for (const UInt8* each = from + 1; isPublic && each < close; ++each) {
    const bool isKnown = *each == ' ' || *each == '\r' || *each == '\n' ||
                         (*each > ' ' && *each < 0x7F && !std::strchr("\"&<>[\\]^`{|}~", *each));
    if (!isKnown) {
      return Fail(each, "a public identifier must not have this character");
    }
  }
  return IsText(from, at) || FailNotText(from, at);
}

bool XMLReader::ReadDoctype() {
  at += std::strlen("<!DOCTYPE");
  if (!SkipBlanks() || TakeName().empty()) return Fail(at, "the document type has no name");
  const bool blank = SkipBlanks();
  if (blank && (Follows("PUBLIC") || Follows("SYSTEM"))) {
    const bool isPublic = *at == 'P';
    at += std::strlen("PUBLIC");
    if (at == end || !IsBlank(*at)) return Fail(at, "the document type is malformed");
    if (!ReadLiteral(isPublic)) return false;
    if (isPublic && (at == end || !IsBlank(*at))) return Fail(at, "the document type is malformed");
    if (isPublic && !ReadLiteral(false)) return false;
    SkipBlanks();
  }
  if (at == end) return FailAtEnd("the end of the document type");
  if (*at == '[') {
    return Fail(at, "the document type has declarations of its own",
                "property lists need none: remove what is between [ and ]");
  }
  if (*at != '>') return Fail(at, "the document type is malformed");
  ++at;
  return true;
}

bool XMLReader::SkipComment() {
  const UInt8* const from = at;
  at += std::strlen("<!--");
  for (;;) {
    const void* dash = std::memchr(at, '-', Left());
    if (dash == nullptr) return Fail(from, "this comment is never closed");
    at = static_cast<const UInt8*>(dash) + 1;
    if (at == end || *at != '-') continue;
    if (end - at < 2) return Fail(from, "this comment is never closed");
    if (at[1] != '>') return Fail(at - 1, "a comment must not have -- in it");
    break;
  }
  at += 2;
  return IsText(from, at) || FailNotText(from, at);
}

bool XMLReader::SkipInstruction() {
  const UInt8* const from = at;
  at += 2;
  const std::string_view name = TakeName();
  if (name.empty()) return Fail(from, "this instruction has no name");
  if (name.size() == 3 && (name[0] | 32) == 'x' && (name[1] | 32) == 'm' && (name[2] | 32) == 'l') {
    return Fail(from, "the XML declaration stands only once, at the very beginning");
  }
  if (!Follows("?>") && (at == end || !IsBlank(*at))) {
    return Fail(from, "this instruction is malformed");
  }
  for (;;) {
    const void* mark = std::memchr(at, '?', Left());
    if (mark == nullptr) return Fail(from, "this instruction is never closed");
    at = static_cast<const UInt8*>(mark) + 1;
    if (at < end && *at == '>') break;
  }
  ++at;
  return IsText(from, at) || FailNotText(from, at);
}

// White space, comments and instructions between elements.
bool XMLReader::SkipMisc(bool mayHaveDoctype) {
  for (;;) {
    SkipBlanks();
    if (Left() < 2 || at[0] != '<' || (at[1] != '!' && at[1] != '?')) return true;
    if (at[1] == '?') {
      if (!SkipInstruction()) return false;
    } else if (Follows("<!--")) {
      if (!SkipComment()) return false;
    } else if (mayHaveDoctype && Follows("<!DOCTYPE")) {
      mayHaveDoctype = false;
      if (!ReadDoctype()) return false;
    } else {
      return Fail(at, "this markup does not belong here");
    }
  }
}

// Tags.

bool XMLReader::ReadAttribute(std::string_view* name, std::string_view* value) {
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
bool XMLReader::FinishTag(bool* isEmpty) {
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

bool XMLReader::ReadStartTag(StartTag* tag) {
  tag->begin = at;
  if (at == end) return FailAtEnd("a value");
  if (*at != '<') return Fail(at, "text that belongs to no element");
  ++at;
  if (Left() >= sizeof(uint64_t)) {
    const uint64_t word = HostLoadBig64(at);
    tag->element = kGuesses[GuessHash(static_cast<UInt32>(word >> 32))];
    tag->isEmpty = kEmptyTagWords[static_cast<size_t>(tag->element)].Is(word);
    if (tag->isEmpty || WordOf(tag->element).Is(word)) {
      at += NameOf(tag->element).size() + (tag->isEmpty ? 2 : 1);
      return true;
    }
  }
  const std::string_view name = TakeName();
  tag->element = FindElement(name);
  if (tag->element == Element::kUnknown) {
    if (at == end) return FailAtEnd("the end of this tag");
    if (name.empty())
      return Fail(tag->begin, "< begins no tag here", "write &lt; for the character");
    return Fail(tag->begin, "property lists have no element " + Tag(name));
  }
  if (at < end && *at == '>') {
    ++at;
    tag->isEmpty = false;
    return true;
  }
  return FinishTag(&tag->isEmpty);
}

// At "</"; `element` is what it must close.
bool XMLReader::ReadEndTag(Element element) {
  const UInt8* const from = at;
  const std::string_view name = NameOf(element);
  at += 2;
  if (Left() >= sizeof(uint64_t) && WordOf(element).Is(HostLoadBig64(at))) {
    at += name.size() + 1;
    return true;
  }
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
bool XMLReader::ReadReference(UInt8* out, size_t* count) {
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

// The text up to the end tag, which is read too.
bool XMLReader::ReadText(const StartTag& tag, Text* text) {
  const UInt8* const from = at;
  uint64_t high = 0;
  at = HostFindEither(at, end, '<', '&', &high);
  if (!Follows("</")) return GatherText(tag, from, text);
  *text = {from, static_cast<size_t>(at - from), high == 0};
  return ReadEndTag(tag.element);
}

// As ReadText, for text that is not one run: `at` is at the end of its first one.
bool XMLReader::GatherText(const StartTag& tag, const UInt8* from, Text* text) {
  scratch.clear();
  uint64_t high = 0;
  for (;;) {
    scratch.insert(scratch.end(), from, at);
    if (at == end) return Fail(tag.begin, Tag(NameOf(tag.element)) + " is never closed");
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
      return Fail(at, Tag(NameOf(tag.element)) + " is not closed before this",
                  "write &lt; for the character <");
    }
    from = at;
    at = HostFindEither(at, end, '<', '&', &high);
  }
  *text = {scratch.data(), scratch.size(), HostIsASCII(scratch.data(), scratch.size())};
  return ReadEndTag(tag.element);
}

// Values.

// A line break and up to seven tabs, as they stand between elements as a rule. More may follow.
void XMLReader::SkipIndentation() {
  constexpr uint64_t kTabs = kHostOnes * '\t';
  uint64_t word;
  if (Left() <= sizeof word || *at != '\n') return;
  std::memcpy(&word, at + 1, sizeof word);
  if (word != kTabs) at += 1 + HostFirstByte(word ^ kTabs);
}

// White space, comments and the like, then one value with all that is in it.
bool XMLReader::ReadValue() {
  do {
    SkipIndentation();
    const bool isMisc = Left() < 2 || at[0] != '<' || at[1] == '!' || at[1] == '?';
    if (isMisc && !SkipMisc()) return false;
    if (builder.IsInside() && Left() > 1 && at[0] == '<' && at[1] == '/') {
      if (!CloseContainer()) return false;
    } else {
      StartTag tag;
      if (!ReadStartTag(&tag) || !ReadElement(tag)) return false;
    }
  } while (builder.IsInside());
  return true;
}

bool XMLReader::CheckPlace(const StartTag& tag) {
  const bool needsKey = builder.NeedsKey();
  const bool isKey = tag.element == Element::kKey;
  if (needsKey == isKey && tag.element != Element::kPlist) return true;
  if (tag.element == Element::kPlist) return Fail(tag.begin, "<plist> inside of a list");
  if (needsKey) return Fail(tag.begin, "there is no <key> before this value");
  const bool inDictionary =
      builder.IsInside() && builder.Innermost() == HostPlistBuilder::Kind::kDictionary;
  if (inDictionary) return Fail(tag.begin, "the key before this one has no value");
  return Fail(tag.begin, "a <key> outside of a <dict>");
}

bool XMLReader::ReadElement(const StartTag& tag) {
  if (!CheckPlace(tag)) return false;
  if (tag.element != Element::kDict && tag.element != Element::kArray) return ReadLeaf(tag);
  const auto kind = tag.element == Element::kDict ? HostPlistBuilder::Kind::kDictionary
                                                  : HostPlistBuilder::Kind::kArray;
  if (!builder.Open(kind)) return FailBuilding(tag.begin);
  return !tag.isEmpty || builder.Close() || FailBuilding(tag.begin);
}

bool XMLReader::CloseContainer() {
  const bool isArray = builder.Innermost() == HostPlistBuilder::Kind::kArray;
  const UInt8* const from = at;
  if (!ReadEndTag(isArray ? Element::kArray : Element::kDict)) return false;
  if (!isArray && !builder.NeedsKey()) return Fail(from, "the last key has no value");
  return builder.Close() || FailBuilding(from);
}

bool XMLReader::ReadLeaf(const StartTag& tag) {
  Text text = {at, 0, true};
  const UInt8* const from = at;
  if (!tag.isEmpty && !ReadText(tag, &text)) return false;
  switch (tag.element) {
    case Element::kKey:
    case Element::kString:
      return AddText(tag, text, from);
    case Element::kInteger:
      return AddInteger(tag, Trim(text.View()));
    case Element::kReal:
      return AddReal(tag, Trim(text.View()));
    case Element::kDate:
      return AddDate(tag, Trim(text.View()));
    case Element::kData:
      return AddData(tag, text, from);
    default:
      break;
  }
  if (!Trim(text.View()).empty()) {
    return Fail(from, Tag(NameOf(tag.element)) + " must be empty");
  }
  return builder.AddBoolean(tag.element == Element::kTrue) || FailBuilding(tag.begin);
}

bool XMLReader::AddText(const StartTag& tag, const Text& text, const UInt8* from) {
  const bool isKey = tag.element == Element::kKey;
  if (text.isASCII) {
    const bool added =
        isKey ? builder.AddKey(text.bytes, text.count) : builder.AddString(text.bytes, text.count);
    return added || FailBuilding(tag.begin);
  }
  // Twice the code units: they are decoded beside the string.
  if (!builder.Charge(text.count * sizeof(UniChar))) return FailBuilding(tag.begin);
  auto* string = HostCFString::Create(kCFStringEncodingUTF8, text.bytes, text.count, false);
  builder.Refund(text.count * sizeof(UniChar));
  if (string == nullptr) return FailNotText(from, at);
  const size_t size = sizeof *string + string->Length() * sizeof(UniChar);
  return builder.Add(string, size) || FailBuilding(tag.begin);
}

bool XMLReader::AddInteger(const StartTag& tag, std::string_view text) {
  bool isNegative = false;
  UInt64 magnitude = 0;
  switch (HostParsePlistInteger(text, &isNegative, &magnitude)) {
    case HostPlistParse::kMalformed:
      return Fail(tag.begin, "this is not an integer");
    case HostPlistParse::kOutOfRange:
      return Fail(tag.begin, "this integer does not fit into 64 bits",
                  "-9223372036854775808 to 18446744073709551615");
    case HostPlistParse::kGood:
      break;
  }
  return builder.AddInteger(isNegative, magnitude) || FailBuilding(tag.begin);
}

bool XMLReader::AddReal(const StartTag& tag, std::string_view text) {
  double value = 0;
  switch (HostParsePlistReal(text, &value)) {
    case HostPlistParse::kMalformed:
      return Fail(tag.begin, "this is not a real number");
    case HostPlistParse::kOutOfRange:
      return Fail(tag.begin, "no 64-bit real is near to this number");
    case HostPlistParse::kGood:
      break;
  }
  return builder.AddReal(value) || FailBuilding(tag.begin);
}

bool XMLReader::AddDate(const StartTag& tag, std::string_view text) {
  CFAbsoluteTime time = 0;
  switch (HostParsePlistDate(text, &time)) {
    case HostPlistParse::kMalformed:
      return Fail(tag.begin, "this is not a date", "as 2005-03-01T12:34:56Z");
    case HostPlistParse::kOutOfRange:
      return Fail(tag.begin, "there is no such date", "years go from 0001 to 9999");
    case HostPlistParse::kGood:
      break;
  }
  return builder.AddDate(time) || FailBuilding(tag.begin);
}

bool XMLReader::AddData(const StartTag& tag, const Text& text, const UInt8* from) {
  UInt8* bytes = nullptr;
  const size_t room = text.count / 4 * 3 + 3;
  auto* data = HostCFData::CreateToFill(room, &bytes);
  size_t count = 0;
  const UInt8* bad =
      data != nullptr ? HostDecodeBase64(text.bytes, text.count, bytes, &count) : nullptr;
  if (bad == nullptr) {
    if (data != nullptr) data->Finish(count);
    return builder.Add(data, sizeof *data + room) || FailBuilding(tag.begin);
  }
  data->Release();
  const bool isInPlace = text.bytes == from;
  if (bad == text.bytes + text.count) return Fail(tag.begin, "this base64 text is incomplete");
  return Fail(isInPlace ? bad : tag.begin, "this is not base64");
}

bool XMLReader::ReadEnvelope() {
  if (Follows("<?xml") && Left() > 5 && IsBlank(at[5]) && !ReadDeclaration()) return false;
  if (!SkipMisc(true)) return false;
  if (at == end) return FailAtEnd("a value");
  const UInt8* const first = at;
  StartTag tag;
  if (!ReadStartTag(&tag)) return false;
  if (tag.element != Element::kPlist) {
    at = first;
    return ReadValue() && SkipMisc();
  }
  if (tag.isEmpty) return Fail(tag.begin, "<plist> has no value in it");
  if (!SkipMisc()) return false;
  if (Follows("</")) return Fail(at, "<plist> has no value in it");
  if (!ReadValue() || !SkipMisc()) return false;
  if (at == end) return FailAtEnd("</plist>");
  if (!Follows("</")) return Fail(at, "<plist> has more than one value in it");
  return ReadEndTag(Element::kPlist) && SkipMisc();
}

CFPropertyListRef XMLReader::Read() {
  if (!input.isGood) return Fail(end, "the bytes are not UTF-16"), nullptr;
  if (input.wasUTF16 && !builder.Charge(input.count)) return FailBuilding(begin), nullptr;
  SkipBlanks();
  if (!ReadEnvelope()) return nullptr;
  if (at != end) return Fail(at, "something follows the end of the list"), nullptr;
  return builder.TakeRoot();
}

}  // namespace

CFPropertyListRef HostReadPlistXML(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                   HostPropertyListError* error) {
  std::vector<UInt8> converted;
  const HostPlistText text = HostTakePlistText(bytes, count, &converted);
  return XMLReader(text, count, mutability, error).Read();
}
