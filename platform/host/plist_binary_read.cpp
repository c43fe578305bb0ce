#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/byte_order.h"
#include "platform/host/cf_data.h"
#include "platform/host/cf_date.h"
#include "platform/host/cf_number.h"
#include "platform/host/cf_string.h"
#include "platform/host/plist_binary.h"
#include "platform/host/plist_builder.h"
#include "platform/host/plist_codec.h"
#include "platform/host/plist_values.h"

namespace {

constexpr size_t kMemoryFactor = 16;
constexpr size_t kLeastItem = 4;  // two bytes of an object, a position and a reference

// A big-endian number of 1 to 8 bytes, with at least as many bytes of the file behind it as the
// trailer has.
uint64_t LoadBig(const UInt8* bytes, size_t size) {
  static_assert(kHostPlistTrailerSize >= sizeof(uint64_t));
  return HostLoadBig64(bytes) >> (64 - 8 * size);
}

// BinaryReader follows the references from the root on. A leaf is made once, when it is first met,
// and shared by all who refer to it; a container is made anew for each. Leaves are known as long as
// the list that is being made holds them. Where a key comes twice, its dictionary lets go of some:
// then everything is read once more, with references to what is known. Every number of the file is
// held against the bytes there are before it is used. A function that reads something returns false
// when it is not as it should be; the error is then in place.
class BinaryReader {
 public:
  BinaryReader(const UInt8* bytes, size_t count, CFOptionFlags mutability, bool retains,
               HostPropertyListError* error)
      : bytes(bytes),
        count(count),
        retains(retains),
        error(error),
        builder(count, kMemoryFactor, kLeastItem, mutability) {}
  ~BinaryReader();
  BinaryReader(const BinaryReader&) = delete;
  BinaryReader& operator=(const BinaryReader&) = delete;

  // `*again` is true when it has to be read once more, retaining.
  CFPropertyListRef Read(bool* again);

 private:
  // An object's head: its kind, and the count (of bytes, units, references) with where they begin.
  struct Head {
    UInt8 marker;
    size_t at;       // of the marker
    size_t content;  // of what follows marker and count
    size_t count;
  };
  // A container that is being read.
  struct Frame {
    size_t index;
    size_t refs;  // where its references begin
    size_t count;
    size_t next = 0;
    bool isDictionary;
  };

  [[gnu::cold]] bool Fail(size_t where, const char* text, const char* hint = "");
  [[gnu::cold]] bool FailBuilding(size_t where) { return Fail(where, builder.Problem()); }
  [[gnu::cold]] bool FailUnknown(const Head& head);

  bool ReadTrailer();
  bool FindObject(size_t index, size_t* at);
  bool ReadHead(size_t at, Head* head);
  bool ReadCount(Head* head);
  bool Fits(const Head& head, size_t unitSize);

  bool AddObject(size_t index, bool asKey, size_t referrer);
  bool OpenContainer(size_t index, const Head& head);
  bool ReadItems();
  const HostCFObject* MakeLeaf(Head& head, size_t* size);
  const HostCFObject* MakeInteger(const Head& head);
  const HostCFObject* MakeReal(const Head& head);
  const HostCFObject* MakeDate(const Head& head);
  const HostCFObject* MakeText(const Head& head, size_t* size);

  const UInt8* const bytes;
  const size_t count;
  const bool retains;
  HostPropertyListError* const error;
  HostPlistBuilder builder;

  size_t offsetSize = 0;
  size_t refSize = 0;
  size_t table = 0;  // the objects end where the table begins
  size_t root = 0;
  std::vector<const HostCFObject*> known;  // by index: a leaf, OpenMark, or null
  std::vector<Frame> frames;
};

// Stands for a container that is not finished yet.
const HostCFObject* OpenMark() {
  return static_cast<const HostCFObject*>(static_cast<CFTypeRef>(kCFAllocatorNull));
}

BinaryReader::~BinaryReader() {
  if (!retains) return;
  for (const HostCFObject* object : known) {
    if (object != nullptr) object->Release();
  }
}

bool BinaryReader::Fail(size_t where, const char* text, const char* hint) {
  error->text = text;
  error->hint = hint;
  error->offset = where;
  error->line = error->column = 0;
  return false;
}

bool BinaryReader::ReadTrailer() {
  constexpr size_t kLeast = kHostPlistMagicSize + 2 + kHostPlistTrailerSize;
  if (count < kLeast) {
    return Fail(count, "the file is too short", "it may have been cut short");
  }
  if (std::memcmp(bytes, kHostPlistMagic, kHostPlistMagicSize - 1) != 0) {
    return Fail(0, "this version of the binary form is not known");
  }
  const size_t end = count - kHostPlistTrailerSize;
  const UInt8* const trailer = bytes + end;
  offsetSize = trailer[kHostPlistOffsetSizeAt];
  refSize = trailer[kHostPlistRefSizeAt];
  if (offsetSize < 1 || offsetSize > 8) {
    return Fail(end + kHostPlistOffsetSizeAt, "a position takes 1 to 8 bytes");
  }
  if (refSize < 1 || refSize > 8) {
    return Fail(end + kHostPlistRefSizeAt, "a reference takes 1 to 8 bytes");
  }
  const uint64_t objects = HostLoadBig64(trailer + kHostPlistObjectCountAt);
  const uint64_t rootIndex = HostLoadBig64(trailer + kHostPlistRootAt);
  const uint64_t tableAt = HostLoadBig64(trailer + kHostPlistTableAt);
  if (tableAt <= kHostPlistMagicSize || tableAt >= end) {
    return Fail(end + kHostPlistTableAt, "the table of positions lies outside of the file",
                "it may have been cut short");
  }
  if (objects == 0 || objects > (end - tableAt) / offsetSize) {
    return Fail(end + kHostPlistObjectCountAt,
                "the table of positions has no room for all objects");
  }
  if (rootIndex >= objects) return Fail(end + kHostPlistRootAt, "there is no such root object");
  table = static_cast<size_t>(tableAt);
  root = static_cast<size_t>(rootIndex);
  const auto size = static_cast<size_t>(objects);
  if (!builder.Charge(size * sizeof known[0])) return FailBuilding(end + kHostPlistObjectCountAt);
  known.resize(size);
  return true;
}

bool BinaryReader::FindObject(size_t index, size_t* at) {
  const size_t entry = table + index * offsetSize;
  const uint64_t position = LoadBig(bytes + entry, offsetSize);
  if (position < kHostPlistMagicSize || position >= table) {
    return Fail(entry, "this position lies outside of the objects");
  }
  *at = static_cast<size_t>(position);
  return true;
}

// The count behind a marker that has no room for it.
bool BinaryReader::ReadCount(Head* head) {
  const UInt8 marker = head->content < table ? bytes[head->content] : UInt8{0};
  const size_t size = size_t{1} << (marker & 0x0F);
  if ((marker & 0xF0) != kHostPlistInteger || size > 8) {
    return Fail(head->content, "a count is due here");
  }
  ++head->content;
  if (size > table - head->content) return Fail(head->at, "this object is longer than the file");
  const uint64_t value = LoadBig(bytes + head->content, size);
  head->content += size;
  if (value > table - head->content) return Fail(head->at, "this object is longer than the file");
  head->count = static_cast<size_t>(value);
  return true;
}

bool BinaryReader::ReadHead(size_t at, Head* head) {
  const UInt8 marker = bytes[at];
  *head = {marker, at, at + 1, size_t{marker} & 0x0F};
  if (marker < kHostPlistData || marker >= 0xE0) return true;
  head->marker = marker & 0xF0;
  if (head->marker == kHostPlistUID || head->count != kHostPlistLargeCount) return true;
  return ReadCount(head);
}

// Whether `count` parts of that size follow.
bool BinaryReader::Fits(const Head& head, size_t unitSize) {
  // No count is larger than the file, so the product does not wrap.
  if (uint64_t{head.count} * unitSize <= table - head.content) return true;
  return Fail(head.at, "this object is longer than the file", "it may have been cut short");
}

const HostCFObject* BinaryReader::MakeInteger(const Head& head) {
  const UInt8* const content = bytes + head.content;
  switch (head.count) {
    case 1:
    case 2:
    case 4:
      return HostCFNumber::CreateUInt64(LoadBig(content, head.count), builder.Pool());
    case 8:
      return HostCFNumber::CreateSInt64(static_cast<SInt64>(HostLoadBig64(content)),
                                        builder.Pool());
    default:
      break;
  }
  const uint64_t high = HostLoadBig64(content);
  const uint64_t low = HostLoadBig64(content + 8);
  if (high == 0) return HostCFNumber::CreateUInt64(low);
  if (high == UINT64_MAX && low >> 63 != 0) {
    return HostCFNumber::CreateSInt64(static_cast<SInt64>(low));
  }
  return Fail(head.at, "this integer does not fit into 64 bits"), nullptr;
}

const HostCFObject* BinaryReader::MakeReal(const Head& head) {
  const UInt8* const content = bytes + head.content;
  return HostCFNumber::CreateFloat64(
      head.count == 4 ? static_cast<double>(std::bit_cast<float>(HostLoadBig32(content)))
                      : std::bit_cast<double>(HostLoadBig64(content)),
      builder.Pool());
}

const HostCFObject* BinaryReader::MakeDate(const Head& head) {
  const auto time = std::bit_cast<double>(HostLoadBig64(bytes + head.content));
  if (!HostIsPlistDate(time)) {
    return Fail(head.at, "this date lies outside of the years 1 to 9999"), nullptr;
  }
  return HostCFDate::Create(time, builder.Pool());
}

const HostCFObject* BinaryReader::MakeText(const Head& head, size_t* size) {
  const UInt8* const content = bytes + head.content;
  *size = sizeof(HostCFString) + head.count;
  if (head.marker == kHostPlistASCII) {
    static_assert(kHostPlistTrailerSize >= sizeof(UInt64));  // behind all objects
    bool isASCII = false;
    auto* string = HostCFString::CreateIfASCII(content, head.count, builder.Pool(), &isASCII);
    if (!isASCII) Fail(head.at, "this text is not ASCII");
    return string;
  }
  const std::unique_ptr<UniChar[]> units(new (std::nothrow) UniChar[head.count]);
  if (units == nullptr) return nullptr;
  for (size_t i = 0; i < head.count; ++i) units[i] = HostLoadBig16(content + i * 2);
  *size += head.count;
  return HostCFString::Create(HostTextView{nullptr, units.get(), head.count});
}

// A leaf with one reference and what it takes, or null: the error is in place unless there was no
// memory.
const HostCFObject* BinaryReader::MakeLeaf(Head& head, size_t* size) {
  *size = sizeof(HostCFNumber);
  switch (head.marker & 0xF0) {
    case kHostPlistNull:
      if (head.marker == kHostPlistFalse) return kCFBooleanFalse;
      if (head.marker == kHostPlistTrue) return kCFBooleanTrue;
      break;
    case kHostPlistInteger:
      head.count = size_t{1} << head.count;
      if (head.count > 16) break;
      return Fits(head, 1) ? MakeInteger(head) : nullptr;
    case kHostPlistReal:
      head.count = size_t{1} << head.count;
      if (head.count != 4 && head.count != 8) break;
      return Fits(head, 1) ? MakeReal(head) : nullptr;
    case kHostPlistDate & 0xF0:
      head.count = 8;
      if (head.marker != kHostPlistDate) break;
      return Fits(head, 1) ? MakeDate(head) : nullptr;
    case kHostPlistData:
      *size = sizeof(HostCFData) + head.count;
      if (!Fits(head, 1)) return nullptr;
      return HostCFData::Create(bytes + head.content, head.count, builder.Pool());
    case kHostPlistASCII:
      return Fits(head, 1) ? MakeText(head, size) : nullptr;
    case kHostPlistUTF16:
      return Fits(head, 2) ? MakeText(head, size) : nullptr;
    default:
      break;
  }
  FailUnknown(head);
  return nullptr;
}

bool BinaryReader::FailUnknown(const Head& head) {
  constexpr char kDigits[] = "0123456789abcdef";
  const char marker[] = {kDigits[bytes[head.at] >> 4], kDigits[bytes[head.at] & 15], 0};
  return Fail(head.at, (std::string("property lists have no objects of kind 0x") + marker).c_str());
}

bool BinaryReader::OpenContainer(size_t index, const Head& head) {
  const bool isDictionary = head.marker == kHostPlistDict;
  if (!Fits(head, isDictionary ? 2 * refSize : refSize)) return false;
  const auto kind =
      isDictionary ? HostPlistBuilder::Kind::kDictionary : HostPlistBuilder::Kind::kArray;
  if (!builder.Open(kind)) return FailBuilding(head.at);
  known[index] = OpenMark();
  Frame frame = {index, head.content, head.count, 0, isDictionary};
  frames.push_back(frame);
  return true;
}

// `referrer` is where the reference stands.
bool BinaryReader::AddObject(size_t index, bool asKey, size_t referrer) {
  const HostCFObject* object = known[index];
  size_t size = 0;  // of what is made
  if (object == OpenMark()) return Fail(referrer, "a container contains itself");
  if (object == nullptr) {
    size_t at = 0;
    Head head;
    if (!FindObject(index, &at) || !ReadHead(at, &head)) return false;
    const bool isContainer = head.marker == kHostPlistArray || head.marker == kHostPlistDict;
    if (isContainer && !asKey) return OpenContainer(index, head);
    if (isContainer) return Fail(referrer, "a key of a dictionary is no string");
    object = MakeLeaf(head, &size);
    if (object == nullptr) {
      return error->text.empty() ? Fail(at, "there is no memory left") : false;
    }
    known[index] = object;
    if (retains) object->Retain();
  } else {
    object->Retain();
  }
  const bool isString = object->TypeID() == kHostTypeString;
  if (!builder.Add(object, size)) return FailBuilding(referrer);
  return !asKey || isString || Fail(referrer, "a key of a dictionary is no string");
}

// The items of the innermost container, until there is another one inside; or its end.
bool BinaryReader::ReadItems() {
  const size_t depth = frames.size();
  const Frame frame = frames.back();
  const size_t items = frame.isDictionary ? frame.count * 2 : frame.count;
  for (size_t item = frame.next; item < items; ++item) {
    const bool isKey = frame.isDictionary && item % 2 == 0;
    const size_t place = !frame.isDictionary ? item : isKey ? item / 2 : frame.count + item / 2;
    const size_t at = frame.refs + place * refSize;
    const uint64_t index = LoadBig(bytes + at, refSize);
    if (index >= known.size()) return Fail(at, "there is no such object");
    if (!AddObject(static_cast<size_t>(index), isKey, at)) return false;
    if (frames.size() == depth) continue;
    frames[depth - 1].next = item + 1;
    return true;
  }
  known[frame.index] = nullptr;
  frames.pop_back();
  return builder.Close() || FailBuilding(frame.refs);
}

CFPropertyListRef BinaryReader::Read(bool* again) {
  *again = false;
  error->text.clear();
  if (!ReadTrailer()) return nullptr;
  if (!AddObject(root, false, count - kHostPlistTrailerSize + kHostPlistRootAt)) return nullptr;
  while (!frames.empty()) {
    if (!ReadItems()) return nullptr;
    *again = builder.HasDropped() && !retains;
    if (*again) return nullptr;
  }
  return builder.TakeRoot();
}

}  // namespace

CFPropertyListRef HostReadPlistBinary(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                      HostPropertyListError* error) {
  bool again = false;
  CFPropertyListRef list = BinaryReader(bytes, count, mutability, false, error).Read(&again);
  return again ? BinaryReader(bytes, count, mutability, true, error).Read(&again) : list;
}
