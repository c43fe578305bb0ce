#include "platform/host/plist/xml_write.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/host/base/guard.h"
#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_container.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/plist/characters.h"
#include "platform/host/plist/output.h"
#include "platform/host/plist/walk.h"
#include "platform/host/plist/xml_names.h"

namespace {

constexpr std::string_view kFoot = "</plist>\n";

// XMLWriter writes the steps of a walk as text. A function that writes text returns false if XML
// cannot carry it; `problem` is the reason then.
class XMLWriter {
 public:
  explicit XMLWriter(HostPlistSink& sink) : out(sink) {}

  bool Write(CFPropertyListRef list, HostPropertyListError* error);

 private:
  bool WriteStep(const HostPlistWalk& walk);
  bool PutLeaf(const HostCFObject* object, size_t level);
  void PutContainer(const HostPlistWalk& walk);
  void PutNumber(const HostCFNumber& number, size_t level);
  bool PutDate(const HostCFDate& date, size_t level);
  void PutData(const HostCFData& data, size_t level);
  template <size_t N>
  void PutTag(size_t level, const char (&tag)[N]);
  template <size_t N, size_t M>
  bool PutTextLine(size_t level, const char (&open)[N], HostTextView text, const char (&close)[M]);

  bool PutText(HostTextView text) {
    return text.narrow != nullptr ? PutNarrow(text.narrow, text.length) : PutWide(text);
  }
  UInt8* PutEach(const UInt8* units, size_t count, UInt8* at);
  UInt8* PutShort(const UInt8* units, size_t count, UInt8* at);
  bool PutNarrow(const UInt8* units, size_t count);
  bool PutWide(HostTextView text);
  UInt8* PutScalar(UInt32 scalar, UInt8* at);
  bool Fail(const char* why) {
    problem = why;
    return false;
  }

  HostPlistOutput out;
  const char* problem = nullptr;
};

// How many bytes one character takes at most: "&amp;", or four of UTF-8.
constexpr size_t kLongestCharacter = 5;
constexpr size_t kShort = 1024;

// Whether one of eight characters has another form in UTF-8 or in XML: control characters, &, < and
// >, and characters that are not ASCII.
bool HasSpecial(uint64_t word) {
  const uint64_t belowBlank = (word - kHostOnes * ' ') & ~word & kHostHighs;
  return (belowBlank | (word & kHostHighs) | HostZeroBytes(word ^ kHostOnes * '&') |
          HostZeroBytes((word | kHostOnes * 2) ^ kHostOnes * '>')) != 0;
}

// Writes the tabs at the beginning of a line, eight at once, because few lists are nested deeper.
// There is room for kHostPlistDepth and some more.
UInt8* CopyTabs(UInt8* at, size_t count) {
  for (size_t done = 0; done < count; done += 8) std::memcpy(at + done, "\t\t\t\t\t\t\t\t", 8);
  return at + count;
}
constexpr size_t kTabRoom = kHostPlistDepth + 8;

template <size_t N>
UInt8* Copy(UInt8* at, const char (&literal)[N]) {
  std::memcpy(at, literal, N - 1);
  return at + N - 1;
}

UInt8* XMLWriter::PutScalar(UInt32 scalar, UInt8* at) {
  switch (scalar) {
    case '&':
      return Copy(at, "&amp;");
    case '<':
      return Copy(at, "&lt;");
    case '>':
      return Copy(at, "&gt;");
    case '\r':  // as it is, a reader would take it for the end of a line
      return Copy(at, "&#13;");
    default:
      return at + HostPutUTF8(scalar, at);
  }
}

// Writes the characters one after the other. Returns null if XML cannot carry one.
UInt8* XMLWriter::PutEach(const UInt8* units, size_t count, UInt8* at) {
  for (size_t i = 0; i < count; ++i) {
    if (units[i] == 0) return Fail("a text has a NUL character, which XML cannot carry"), nullptr;
    at = PutScalar(units[i], at);
  }
  return at;
}

// Writes at most kShort characters of ISO Latin-1, for which there must be room. Returns null if
// XML cannot carry them. Eight characters without another form are copied at a time; the last ones
// together with some that were copied before.
UInt8* XMLWriter::PutShort(const UInt8* units, size_t count, UInt8* at) {
  constexpr size_t kWord = sizeof(uint64_t);
  uint64_t word;
  size_t rest = count;
  for (; rest >= kWord; rest -= kWord, units += kWord) {
    std::memcpy(&word, units, kWord);
    if (HasSpecial(word)) {
      at = PutEach(units, kWord, at);
      if (at == nullptr) return nullptr;
      continue;
    }
    std::memcpy(at, &word, kWord);
    at += kWord;
  }
  if (count >= kWord) {
    std::memcpy(&word, units + rest - kWord, kWord);
    if (HasSpecial(word)) return PutEach(units, rest, at);
    std::memcpy(at + rest - kWord, &word, kWord);
    return at + rest;
  }
  constexpr size_t kHalf = sizeof(uint32_t);
  if (rest < kHalf) return PutEach(units, rest, at);
  uint32_t first, last;
  std::memcpy(&first, units, kHalf);
  std::memcpy(&last, units + rest - kHalf, kHalf);
  if (HasSpecial(uint64_t{first} << 32 | last)) return PutEach(units, rest, at);
  std::memcpy(at, &first, kHalf);
  std::memcpy(at + rest - kHalf, &last, kHalf);
  return at + rest;
}

bool XMLWriter::PutNarrow(const UInt8* units, size_t count) {
  for (size_t done = 0; done < count;) {
    const size_t part = std::min(kShort, count - done);
    UInt8* const start = out.Reserve(kShort * kLongestCharacter);
    UInt8* const end = PutShort(units + done, part, start);
    if (end == nullptr) return false;
    out.Advance(static_cast<size_t>(end - start));
    done += part;
  }
  return true;
}

// At the beginning of a line, which ends there if the tag has a line break.
template <size_t N>
void XMLWriter::PutTag(size_t level, const char (&tag)[N]) {
  UInt8* const start = out.Reserve(kTabRoom + N);
  out.Advance(static_cast<size_t>(Copy(CopyTabs(start, level), tag) - start));
}

// Writes a line with a text between two tags.
template <size_t N, size_t M>
bool XMLWriter::PutTextLine(size_t level, const char (&open)[N], HostTextView text,
                            const char (&close)[M]) {
  if (text.narrow == nullptr || text.length > kShort) {
    PutTag(level, open);
    if (!PutText(text)) return false;
    out.Put(close);
    return true;
  }
  UInt8* const start = out.Reserve(kTabRoom + N + M + kShort * kLongestCharacter);
  UInt8* at = Copy(CopyTabs(start, level), open);
  at = PutShort(text.narrow, text.length, at);
  if (at == nullptr) return false;
  out.Advance(static_cast<size_t>(Copy(at, close) - start));
  return true;
}

bool XMLWriter::PutWide(HostTextView text) {
  for (size_t i = 0; i < text.length;) {
    UInt8* const start = out.Reserve(kLongestCharacter);
    UInt32 scalar = text.At(i++);
    if (scalar == 0) return Fail("a text has a NUL character, which XML cannot carry");
    if ((scalar & 0xF800) == 0xD800) {
      const UInt32 low = i < text.length ? text.At(i) : 0u;
      if (scalar >= 0xDC00 || (low & 0xFC00) != 0xDC00) {
        return Fail("a text has half of a surrogate pair, which XML cannot carry");
      }
      ++i;
      scalar = 0x10000 + ((scalar & 0x3FF) << 10 | (low & 0x3FF));
    }
    out.Advance(static_cast<size_t>(PutScalar(scalar, start) - start));
  }
  return true;
}

void XMLWriter::PutNumber(const HostCFNumber& number, size_t level) {
  constexpr size_t kMostDigits = 20;
  UInt8* const start = out.Reserve(kTabRoom + 64);
  UInt8* at = CopyTabs(start, level);
  if (number.IsFloat()) {
    at = Copy(at, "<real>");
    at += HostFormatPlistReal(number.Real(), reinterpret_cast<char*>(at));
    at = Copy(at, "</real>\n");
  } else {
    at = Copy(at, "<integer>");
    char* const digits = reinterpret_cast<char*>(at);
    char* const end = digits + kMostDigits;
    char* const behind = number.IsUnsigned() ? std::to_chars(digits, end, number.Unsigned()).ptr
                                             : std::to_chars(digits, end, number.Integer()).ptr;
    at = Copy(at + (behind - digits), "</integer>\n");
  }
  out.Advance(static_cast<size_t>(at - start));
}

bool XMLWriter::PutDate(const HostCFDate& date, size_t level) {
  UInt8* const start = out.Reserve(kTabRoom + 64);
  UInt8* at = Copy(CopyTabs(start, level), "<date>");
  if (!HostFormatPlistDate(date.Time(), reinterpret_cast<char*>(at))) {
    return Fail("a date lies outside of the years 1 to 9999");
  }
  at = Copy(at + kHostPlistDateSize, "</date>\n");
  out.Advance(static_cast<size_t>(at - start));
  return true;
}

// Deeper lines are shorter, as if a tab were eight characters wide.
void XMLWriter::PutData(const HostCFData& data, size_t level) {
  const size_t characters = level < 9 ? 76 - 8 * level : 4;
  const size_t lineBytes = characters / 4 * 3;
  PutTag(level, "<data>\n");
  for (size_t done = 0; done < data.Length();) {
    const size_t count = std::min(lineBytes, data.Length() - done);
    UInt8* const start = out.Reserve(kTabRoom + 128);
    UInt8* at = CopyTabs(start, level);
    at += HostEncodeBase64(data.Bytes() + done, count, at);
    out.Advance(static_cast<size_t>(Copy(at, "\n") - start));
    done += count;
  }
  PutTag(level, "</data>\n");
}

bool XMLWriter::PutLeaf(const HostCFObject* object, size_t level) {
  switch (object->TypeID()) {
    case kHostTypeString:
      return PutTextLine(level, "<string>", static_cast<const HostCFString*>(object)->Text(),
                         "</string>\n");
    case kHostTypeNumber:
      PutNumber(*static_cast<const HostCFNumber*>(object), level);
      return true;
    case kHostTypeDate:
      return PutDate(*static_cast<const HostCFDate*>(object), level);
    case kHostTypeData:
      PutData(*static_cast<const HostCFData*>(object), level);
      return true;
    default:
      if (static_cast<const HostCFBoolean*>(object)->is)
        PutTag(level, "<true/>\n");
      else
        PutTag(level, "<false/>\n");
      return true;
  }
}

bool XMLWriter::WriteStep(const HostPlistWalk& walk) {
  const HostCFString* const key = walk.Key();
  if (key != nullptr && !PutTextLine(walk.Level(), "<key>", key->Text(), "</key>\n")) return false;
  if (walk.Current() == HostPlistWalk::Step::kLeaf) return PutLeaf(walk.Object(), walk.Level());
  PutContainer(walk);
  return true;
}

void XMLWriter::PutContainer(const HostPlistWalk& walk) {
  const auto* container = static_cast<const HostContainer*>(walk.Object());
  const bool isArray = container->TypeID() == kHostTypeArray;
  const bool isEmpty = container->ItemCount() == 0;
  const size_t level = walk.Level();
  if (walk.Current() == HostPlistWalk::Step::kClose) {
    if (isEmpty) return;
    return isArray ? PutTag(level, "</array>\n") : PutTag(level, "</dict>\n");
  }
  if (isEmpty) return isArray ? PutTag(level, "<array/>\n") : PutTag(level, "<dict/>\n");
  return isArray ? PutTag(level, "<array>\n") : PutTag(level, "<dict>\n");
}

bool XMLWriter::Write(CFPropertyListRef list, HostPropertyListError* error) {
  out.Put(kHostXMLHeads[0]);
  HostPlistWalk walk(list, HostPlistWalk::Order::kSorted);
  while (walk.Next() && WriteStep(walk) && out.IsGood()) {
  }
  if (walk.Fault() != nullptr) problem = walk.Fault();
  out.Put(kFoot);
  if (problem == nullptr && !out.Flush()) problem = "the bytes could not be written";
  if (problem != nullptr) *error = {problem, ""};
  return problem == nullptr;
}

}  // namespace

bool HostWritePlistXML(CFPropertyListRef list, HostPlistSink& sink, HostPropertyListError* error) {
  if (bool isWritten = false; HostGuard([&] { isWritten = XMLWriter(sink).Write(list, error); })) {
    return isWritten;
  }
  *error = {kHostPlistNoMemory, ""};
  return false;
}
