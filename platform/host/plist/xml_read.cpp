#include "platform/host/plist/xml_read.h"

#include <cstring>
#include <string_view>
#include <vector>

#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/plist/xml_markup.h"

namespace {

constexpr size_t kLeastItem = 7;  // <true/>

// XMLReader makes the values of the markup.
class XMLReader : private HostXMLMarkup {
 public:
  // inputSize is that of the file, before it became UTF-8.
  XMLReader(const HostPlistText& text, size_t inputSize, const HostPlistRequest& request,
            HostPropertyListError* error)
      : HostXMLMarkup(text, inputSize, kLeastItem, request, error) {}

  CFPropertyListRef Read();

 private:
  static std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsBlank(static_cast<UInt8>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && IsBlank(static_cast<UInt8>(text.back()))) text.remove_suffix(1);
    return text;
  }

  bool ReadEnvelope();
  bool ReadInsideOfPlist();
  void SkipIndentation();
  bool ReadValue();
  bool ReadElement(const StartTag& tag);
  bool CheckPosition(const StartTag& tag);
  bool CloseContainer();
  bool ReadLeaf(const StartTag& tag);
  bool AddText(const StartTag& tag, const Text& text, const UInt8* from);
  bool AddInteger(const StartTag& tag, std::string_view text);
  bool AddReal(const StartTag& tag, std::string_view text);
  bool AddDate(const StartTag& tag, std::string_view text);
  bool AddData(const StartTag& tag, const Text& text, const UInt8* from);
};

// Skips a line break and up to seven tabs, which is the usual white space between elements. More
// may follow.
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

bool XMLReader::CheckPosition(const StartTag& tag) {
  const bool needsKey = builder.NeedsKey();
  const bool isKey = tag.element == HostXMLElement::kKey;
  if (needsKey == isKey && tag.element != HostXMLElement::kPlist) return true;
  if (tag.element == HostXMLElement::kPlist) return Fail(tag.begin, "<plist> inside of a list");
  if (needsKey) return Fail(tag.begin, "there is no <key> before this value");
  const bool inDictionary =
      builder.IsInside() && builder.Innermost() == HostPlistBuilder::Kind::kDictionary;
  if (inDictionary) return Fail(tag.begin, "the key before this one has no value");
  return Fail(tag.begin, "a <key> outside of a <dict>");
}

bool XMLReader::ReadElement(const StartTag& tag) {
  if (!CheckPosition(tag)) return false;
  if (tag.element != HostXMLElement::kDict && tag.element != HostXMLElement::kArray)
    return ReadLeaf(tag);
  const auto kind = tag.element == HostXMLElement::kDict ? HostPlistBuilder::Kind::kDictionary
                                                         : HostPlistBuilder::Kind::kArray;
  if (!builder.Open(kind)) return FailBuilding(tag.begin);
  return !tag.isEmpty || builder.Close() || FailBuilding(tag.begin);
}

bool XMLReader::CloseContainer() {
  const bool isArray = builder.Innermost() == HostPlistBuilder::Kind::kArray;
  const UInt8* const from = at;
  if (!ReadEndTag(isArray ? HostXMLElement::kArray : HostXMLElement::kDict)) return false;
  if (!isArray && !builder.NeedsKey()) return Fail(from, "the last key has no value");
  return builder.Close() || FailBuilding(from);
}

bool XMLReader::ReadLeaf(const StartTag& tag) {
  Text text = {at, 0, true};
  const UInt8* const from = at;
  if (!tag.isEmpty && !ReadText(tag, &text)) return false;
  switch (tag.element) {
    case HostXMLElement::kKey:
    case HostXMLElement::kString:
      return AddText(tag, text, from);
    case HostXMLElement::kInteger:
      return AddInteger(tag, Trim(text.View()));
    case HostXMLElement::kReal:
      return AddReal(tag, Trim(text.View()));
    case HostXMLElement::kDate:
      return AddDate(tag, Trim(text.View()));
    case HostXMLElement::kData:
      return AddData(tag, text, from);
    default:
      break;
  }
  if (!Trim(text.View()).empty()) {
    return Fail(from, HostXMLTag(HostXMLNameOf(tag.element)) + " must be empty");
  }
  return builder.AddBoolean(tag.element == HostXMLElement::kTrue) || FailBuilding(tag.begin);
}

bool XMLReader::AddText(const StartTag& tag, const Text& text, const UInt8* from) {
  const bool isKey = tag.element == HostXMLElement::kKey;
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
  if (!HostParsePlistReal(text, &value)) return Fail(tag.begin, "this is not a real number");
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
  auto* data = HostCFData::CreateToFill(room, &bytes, builder.Pool());
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
  for (const std::string_view usual : kHostXMLHeads) {
    if (!Follows(usual)) continue;
    at += usual.size();
    return ReadInsideOfPlist();
  }
  if (Follows("<?xml") && Left() > 5 && IsBlank(at[5]) && !ReadDeclaration()) return false;
  if (!SkipMisc(true)) return false;
  if (at == end) return FailAtEnd("a value");
  const UInt8* const first = at;
  StartTag tag;
  if (!ReadStartTag(&tag)) return false;
  if (tag.element != HostXMLElement::kPlist) {
    at = first;
    return ReadValue() && SkipMisc();
  }
  if (tag.isEmpty) return Fail(tag.begin, "<plist> has no value in it");
  return ReadInsideOfPlist();
}

// From behind <plist> to the end of the file.
bool XMLReader::ReadInsideOfPlist() {
  if (!SkipMisc()) return false;
  if (Follows("</")) return Fail(at, "<plist> has no value in it");
  if (!ReadValue() || !SkipMisc()) return false;
  if (at == end) return FailAtEnd("</plist>");
  if (!Follows("</")) return Fail(at, "<plist> has more than one value in it");
  return ReadEndTag(HostXMLElement::kPlist) && SkipMisc();
}

CFPropertyListRef XMLReader::Read() {
  if (!Begin()) return nullptr;
  SkipBlanks();
  if (!ReadEnvelope()) return nullptr;
  if (at != end) return Fail(at, "something follows the end of the list"), nullptr;
  return builder.TakeRoot();
}

}  // namespace

CFPropertyListRef HostReadPlistXML(const UInt8* bytes, size_t count,
                                   const HostPlistRequest& request, HostPropertyListError* error) {
  std::vector<UInt8> converted;
  HostPlistText text = HostTakePlistText(bytes, count, &converted);
  HostNormaliseLineEnds(&text, &converted);
  return XMLReader(text, count, request, error).Read();
}
