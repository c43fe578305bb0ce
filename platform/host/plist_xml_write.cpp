#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/host/cf_container.h"
#include "platform/host/cf_data.h"
#include "platform/host/cf_date.h"
#include "platform/host/cf_number.h"
#include "platform/host/plist_codec.h"
#include "platform/host/plist_output.h"
#include "platform/host/plist_text.h"
#include "platform/host/plist_values.h"
#include "platform/host/plist_walk.h"

namespace {

constexpr std::string_view kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFoot = "</plist>\n";

// XMLWriter puts the steps of a walk into text. A function that puts text returns false when XML
// cannot carry it; `problem` then says why.
class XMLWriter {
 public:
  explicit XMLWriter(HostPlistSink& sink) : out(sink) {}

  bool Write(CFPropertyListRef list, HostPropertyListError* error);

 private:
  bool WriteStep(const HostPlistWalk& walk);
  bool PutLeaf(const HostCFObject* object, size_t level);
  void PutNumber(const HostCFNumber& number, size_t level);
  bool PutDate(const HostCFDate& date, size_t level);
  void PutData(const HostCFData& data, size_t level);
  void PutTabs(size_t count);
  static UInt8* CopyTabs(UInt8* at, size_t count);
  template <size_t N, size_t M>
  bool PutTextLine(size_t level, const char (&open)[N], HostTextView text, const char (&close)[M]);

  bool PutText(HostTextView text) {
    return text.narrow != nullptr ? PutNarrow(text.narrow, text.length) : PutWide(text);
  }
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

// Whether one of eight characters does not stand for itself in UTF-8 or in XML.
bool HasSpecial(uint64_t word) {
  return (HostZeroBytes(word) | (word & kHostHighs) | HostZeroBytes(word ^ kHostOnes * '&') |
          HostZeroBytes((word | kHostOnes * 2) ^ kHostOnes * '>')) != 0;
}

UInt8* XMLWriter::PutScalar(UInt32 scalar, UInt8* at) {
  std::string_view entity;
  switch (scalar) {
    case '&':
      entity = "&amp;";
      break;
    case '<':
      entity = "&lt;";
      break;
    case '>':
      entity = "&gt;";
      break;
    default:
      return at + HostPutUTF8(scalar, at);
  }
  std::memcpy(at, entity.data(), entity.size());
  return at + entity.size();
}

// At most kShort characters of ISO Latin-1, to where there is room for them; null when XML cannot
// carry them. Eight a time where all of them stand for themselves.
UInt8* XMLWriter::PutShort(const UInt8* units, size_t count, UInt8* at) {
  for (const UInt8* const end = units + count; units < end;) {
    uint64_t word;
    if (end - units >= static_cast<ptrdiff_t>(sizeof word)) {
      std::memcpy(&word, units, sizeof word);
      if (!HasSpecial(word)) {
        std::memcpy(at, &word, sizeof word);
        units += sizeof word;
        at += sizeof word;
        continue;
      }
    }
    if (*units == 0) return Fail("a text has a NUL character, which XML cannot carry"), nullptr;
    at = PutScalar(*units++, at);
  }
  return at;
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

// A text between two tags, at the beginning of a line.
template <size_t N, size_t M>
bool XMLWriter::PutTextLine(size_t level, const char (&open)[N], HostTextView text,
                            const char (&close)[M]) {
  if (text.narrow == nullptr || text.length > kShort) {
    PutTabs(level);
    out.Put(open);
    if (!PutText(text)) return false;
    out.Put(close);
    return true;
  }
  UInt8* const start = out.Reserve(kHostPlistDepth + N + M + kShort * kLongestCharacter);
  UInt8* at = CopyTabs(start, level);
  std::memcpy(at, open, N - 1);
  at = PutShort(text.narrow, text.length, at + N - 1);
  if (at == nullptr) return false;
  std::memcpy(at, close, M - 1);
  out.Advance(static_cast<size_t>(at + M - 1 - start));
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

// Eight at once, as few lists are nested deeper; there is room for kHostPlistDepth and some more.
UInt8* XMLWriter::CopyTabs(UInt8* at, size_t count) {
  for (size_t done = 0; done < count; done += 8) std::memcpy(at + done, "\t\t\t\t\t\t\t\t", 8);
  return at + count;
}

void XMLWriter::PutTabs(size_t count) {
  CopyTabs(out.Reserve(kHostPlistDepth + 8), count);
  out.Advance(count);
}

void XMLWriter::PutNumber(const HostCFNumber& number, size_t level) {
  constexpr size_t kRoom = 64;
  PutTabs(level);
  char* const start = reinterpret_cast<char*>(out.Reserve(kRoom));
  if (number.IsFloat()) {
    std::memcpy(start, "<real>", 6);
    const size_t size = HostFormatPlistReal(number.Real(), start + 6);
    std::memcpy(start + 6 + size, "</real>\n", 8);
    return out.Advance(size + 14);
  }
  std::memcpy(start, "<integer>", 9);
  char* const digits = start + 9;
  char* const end = start + kRoom;
  char* const behind = number.IsUnsigned() ? std::to_chars(digits, end, number.Unsigned()).ptr
                                           : std::to_chars(digits, end, number.Integer()).ptr;
  std::memcpy(behind, "</integer>\n", 11);
  out.Advance(static_cast<size_t>(behind - start) + 11);
}

bool XMLWriter::PutDate(const HostCFDate& date, size_t level) {
  char text[kHostPlistDateSize];
  if (!HostFormatPlistDate(date.Time(), text)) {
    return Fail("a date lies outside of the years 1 to 9999");
  }
  PutTabs(level);
  out.Put("<date>");
  out.Put(text, sizeof text);
  out.Put("</date>\n");
  return true;
}

// Lines get shorter the deeper they stand, as if a tab were eight characters wide.
void XMLWriter::PutData(const HostCFData& data, size_t level) {
  const size_t characters = level < 9 ? 76 - 8 * level : 4;
  const size_t lineBytes = characters / 4 * 3;
  PutTabs(level);
  out.Put("<data>\n");
  for (size_t done = 0; done < data.Length();) {
    const size_t count = std::min(lineBytes, data.Length() - done);
    PutTabs(level);
    out.Advance(HostEncodeBase64(data.Bytes() + done, count, out.Reserve(128)));
    out.Put("\n");
    done += count;
  }
  PutTabs(level);
  out.Put("</data>\n");
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
      PutTabs(level);
      out.Put(static_cast<const HostCFBoolean*>(object)->is ? "<true/>\n" : "<false/>\n");
      return true;
  }
}

bool XMLWriter::WriteStep(const HostPlistWalk& walk) {
  const HostCFString* const key = walk.Key();
  if (key != nullptr && !PutTextLine(walk.Level(), "<key>", key->Text(), "</key>\n")) return false;
  if (walk.Current() == HostPlistWalk::Step::kLeaf) return PutLeaf(walk.Object(), walk.Level());
  const bool isArray = walk.Object()->TypeID() == kHostTypeArray;
  const bool isOpen = walk.Current() == HostPlistWalk::Step::kOpen;
  if (static_cast<const HostContainer*>(walk.Object())->ItemCount() == 0) {
    if (!isOpen) return true;
    PutTabs(walk.Level());
    out.Put(isArray ? "<array/>\n" : "<dict/>\n");
    return true;
  }
  PutTabs(walk.Level());
  if (isOpen)
    out.Put(isArray ? "<array>\n" : "<dict>\n");
  else
    out.Put(isArray ? "</array>\n" : "</dict>\n");
  return true;
}

bool XMLWriter::Write(CFPropertyListRef list, HostPropertyListError* error) {
  out.Put(kHead);
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
  return XMLWriter(sink).Write(list, error);
}
