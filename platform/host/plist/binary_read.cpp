#include "platform/host/plist/binary_read.h"

#include <bit>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/binary.h"
#include "platform/host/plist/builder.h"

// BinaryReader follows the references from the root on, depth first, with a list of open containers
// instead of recursion. Steps:
//
//   ReadTrailer    checks the trailer against the size of the file; everything after relies on
//                  table, objectCount, offsetSize and refSize being inside it
//   AddReference   looks the object up in `known`; AddObject reads one that is not there
//   ReadItems      adds items of the innermost container until another one is opened, or closes it
//
// `known[i]` is null (not read, or a container that is closed), OpenMark (a container that is open:
// a reference to it is a cycle, and an error), or a leaf. A leaf is made once and shared by all
// that refer to it; a container is made again for each reference, so the result is a tree. The
// builder's limit bounds what shared references can make.
//
// `known` holds no references: the unfinished list keeps the leaves alive. That fails in one case:
// a dictionary with a repeated key releases a value, so a known leaf may be gone. Then the file is
// read a second time with `retains` set, where the table holds references (rare files pay, others
// do not).
//
// Every number of the file is compared with the bytes that are there before it is used. A function
// that reads something returns false if it is malformed; the error is stored then.
//
// Limits. The builder bounds the depth, and the memory: kMemoryFactor times the size of the file,
// plus 4 MiB. Nothing is locked.

namespace {

constexpr size_t kMemoryFactor = 16;
constexpr size_t kLeastItem = 4;  // two bytes of an object, a position and a reference

// Reads a big-endian number of 1 to 8 bytes. At least as many bytes of the file as the trailer has
// must follow.
uint64_t LoadBig(const UInt8* bytes, size_t size) {
  static_assert(kHostPlistTrailerSize >= sizeof(uint64_t));
  return HostLoadBig64(bytes) >> (64 - 8 * size);
}

struct FreeDelete {
  void operator()(void* block) const { std::free(block); }
};

class BinaryReader {
 public:
  BinaryReader(const UInt8* bytes, size_t count, const HostPlistRequest& request, bool retains,
               HostPropertyListError* error)
      : bytes(bytes),
        count(count),
        retains(retains),
        error(error),
        builder(count, kMemoryFactor, kLeastItem, request) {}
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
    size_t next;  // item, or pair
    bool isDictionary;
  };
  enum class Added { kNothing, kLeaf, kContainer };  // kNothing: it failed

  [[gnu::cold]] bool Fail(size_t where, const char* text, const char* hint = "");
  [[gnu::cold]] bool FailBuilding(size_t where) { return Fail(where, builder.Problem()); }
  [[gnu::cold]] bool FailLength(size_t where);
  [[gnu::cold]] bool FailUnknown(const Head& head);
  [[gnu::cold]] Added FailKey(size_t referrer);

  bool ReadTrailer();
  bool ReadCount(Head* head);
  bool Fits(const Head& head, uint64_t size);

  Added AddReference(size_t at, bool asKey);
  Added AddObject(size_t index, bool asKey, size_t referrer);
  bool OpenContainer(size_t index, const Head& head);
  bool ReadItems();
  const HostCFObject* MakeLeaf(const Head& head, size_t* size);
  const HostCFObject* MakeInteger(const Head& head, size_t size);
  const HostCFObject* MakeReal(const Head& head, size_t size);
  const HostCFObject* MakeDate(const Head& head);
  const HostCFObject* MakeASCII(const Head& head);
  const HostCFObject* MakeUTF16(const Head& head);

  const UInt8* const bytes;
  const size_t count;
  const bool retains;
  HostPropertyListError* const error;
  HostPlistBuilder builder;

  size_t offsetSize = 0;
  size_t refSize = 0;
  size_t table = 0;  // the objects end where the table begins
  size_t root = 0;
  size_t objectCount = 0;
  std::unique_ptr<const HostCFObject*[], FreeDelete> known;  // a leaf, OpenMark, or null
  std::vector<Frame> frames;
};

// Stands for a container that is not finished yet.
const HostCFObject* OpenMark() {
  return static_cast<const HostCFObject*>(static_cast<CFTypeRef>(kCFAllocatorNull));
}

BinaryReader::~BinaryReader() {
  if (!retains || known == nullptr) return;
  for (size_t i = 0; i < objectCount; ++i) {
    if (known[i] != nullptr) known[i]->Release();
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
  objectCount = static_cast<size_t>(objects);
  if (!builder.Charge(objectCount * sizeof known[0])) {
    return FailBuilding(end + kHostPlistObjectCountAt);
  }
  // Zeroed by the host, where it lends fresh memory.
  known.reset(static_cast<const HostCFObject**>(std::calloc(objectCount, sizeof known[0])));
  return known != nullptr || Fail(end + kHostPlistObjectCountAt, kHostPlistNoMemory);
}

bool BinaryReader::FailLength(size_t where) {
  return Fail(where, "this object is longer than the file", "it may have been cut short");
}

// Reads the count after a marker that has no room for it.
inline bool BinaryReader::ReadCount(Head* head) {
  const UInt8 marker = head->content < table ? bytes[head->content] : UInt8{0};
  const size_t size = size_t{1} << (marker & 0x0F);
  if ((marker & 0xF0) != kHostPlistInteger || size > 8) {
    return Fail(head->content, "expected a count here");
  }
  ++head->content;
  if (size > table - head->content) return FailLength(head->at);
  const uint64_t value = LoadBig(bytes + head->content, size);
  head->content += size;
  if (value > table - head->content) return FailLength(head->at);
  head->count = static_cast<size_t>(value);
  return true;
}

// Whether `size` bytes follow. No count is larger than the file, so products with it cannot
// overflow.
inline bool BinaryReader::Fits(const Head& head, uint64_t size) {
  return size <= table - head.content || FailLength(head.at);
}

const HostCFObject* BinaryReader::MakeInteger(const Head& head, size_t size) {
  const UInt8* const content = bytes + head.content;
  if (size < 8) return HostCFNumber::CreateUInt64(LoadBig(content, size), builder.Pool());
  const uint64_t high = HostLoadBig64(content);
  if (size == 8) return HostCFNumber::CreateSInt64(static_cast<SInt64>(high), builder.Pool());
  const uint64_t low = HostLoadBig64(content + 8);
  if (high == 0) return HostCFNumber::CreateUInt64(low);
  if (high == UINT64_MAX && low >> 63 != 0) {
    return HostCFNumber::CreateSInt64(static_cast<SInt64>(low));
  }
  return Fail(head.at, "this integer does not fit into 64 bits"), nullptr;
}

// Some CPUs change the bits of a NaN when they widen it, so a short NaN is read as the usual one.
const HostCFObject* BinaryReader::MakeReal(const Head& head, size_t size) {
  const UInt8* const content = bytes + head.content;
  double real = std::bit_cast<double>(HostLoadBig64(content));
  if (size == 4) {
    const auto shorter = std::bit_cast<float>(HostLoadBig32(content));
    real = std::isnan(shorter) ? std::numeric_limits<double>::quiet_NaN() : double{shorter};
  }
  return HostCFNumber::CreateFloat64(real, builder.Pool());
}

const HostCFObject* BinaryReader::MakeDate(const Head& head) {
  const auto time = std::bit_cast<double>(HostLoadBig64(bytes + head.content));
  if (!HostIsPlistDate(time)) {
    return Fail(head.at, "this date lies outside of the years 1 to 9999"), nullptr;
  }
  return HostCFDate::Create(time, builder.Pool());
}

const HostCFObject* BinaryReader::MakeASCII(const Head& head) {
  static_assert(kHostPlistTrailerSize >= sizeof(UInt64));  // after all objects
  bool isASCII = false;
  const auto* string =
      HostCFString::CreateIfASCII(bytes + head.content, head.count, builder.Pool(), &isASCII);
  if (!isASCII) Fail(head.at, "this text is not ASCII");
  return string;
}

const HostCFObject* BinaryReader::MakeUTF16(const Head& head) {
  const std::unique_ptr<UniChar[]> units(new (std::nothrow) UniChar[head.count]);
  if (units == nullptr) return nullptr;
  const UInt8* const content = bytes + head.content;
  for (size_t i = 0; i < head.count; ++i) units[i] = HostLoadBig16(content + i * 2);
  return HostCFString::Create(HostTextView{nullptr, units.get(), head.count});
}

// Makes a leaf with one reference and stores its size in memory. Returns null after a failure; the
// error is stored unless memory ran out.
inline const HostCFObject* BinaryReader::MakeLeaf(const Head& head, size_t* size) {
  const size_t numberSize = size_t{1} << (head.count & 0x0F);
  *size = sizeof(HostCFNumber);
  switch (head.marker & 0xF0) {
    case kHostPlistNull:
      if (head.marker == kHostPlistFalse) return kCFBooleanFalse;
      if (head.marker == kHostPlistTrue) return kCFBooleanTrue;
      break;
    case kHostPlistInteger:
      if (numberSize > 16) break;
      return Fits(head, numberSize) ? MakeInteger(head, numberSize) : nullptr;
    case kHostPlistReal:
      if (numberSize != 4 && numberSize != 8) break;
      return Fits(head, numberSize) ? MakeReal(head, numberSize) : nullptr;
    case kHostPlistDate & 0xF0:
      if (head.marker != kHostPlistDate) break;
      return Fits(head, numberSize) ? MakeDate(head) : nullptr;
    case kHostPlistData:
      *size = sizeof(HostCFData) + head.count;
      if (!Fits(head, head.count)) return nullptr;
      return HostCFData::Create(bytes + head.content, head.count, builder.Pool());
    case kHostPlistASCII:
      *size = sizeof(HostCFString) + head.count;
      return Fits(head, head.count) ? MakeASCII(head) : nullptr;
    case kHostPlistUTF16:
      *size = sizeof(HostCFString) + 2 * head.count;
      return Fits(head, uint64_t{head.count} * 2) ? MakeUTF16(head) : nullptr;
    default:
      break;
  }
  FailUnknown(head);
  return nullptr;
}

bool BinaryReader::FailUnknown(const Head& head) {
  if (head.marker == kHostPlistUID) {
    return Fail(head.at, "this is an archive of objects with unique ids, not a property list");
  }
  constexpr char kDigits[] = "0123456789abcdef";
  const char marker[] = {kDigits[bytes[head.at] >> 4], kDigits[bytes[head.at] & 15], 0};
  return Fail(head.at, (std::string("property lists have no objects of kind 0x") + marker).c_str());
}

BinaryReader::Added BinaryReader::FailKey(size_t referrer) {
  Fail(referrer, "a dictionary key is not a string");
  return Added::kNothing;
}

bool BinaryReader::OpenContainer(size_t index, const Head& head) {
  assert(known[index] == nullptr && frames.size() == builder.Depth());
  const bool isDictionary = head.marker == kHostPlistDict;
  if (!Fits(head, uint64_t{head.count} * refSize * (isDictionary ? 2 : 1))) return false;
  const auto kind =
      isDictionary ? HostPlistBuilder::Kind::kDictionary : HostPlistBuilder::Kind::kArray;
  if (!builder.Open(kind)) return FailBuilding(head.at);
  known[index] = OpenMark();
  frames.push_back({index, head.content, head.count, 0, isDictionary});
  return true;
}

// Makes an object that is not known. `referrer` is the offset of the reference.
BinaryReader::Added BinaryReader::AddObject(size_t index, bool asKey, size_t referrer) {
  constexpr Added kNothing = Added::kNothing;
  const size_t entry = table + index * offsetSize;
  assert(index < objectCount);  // checked by AddReference, and by ReadTrailer for the root
  const uint64_t position = LoadBig(bytes + entry, offsetSize);
  if (position < kHostPlistMagicSize || position >= table) {
    return Fail(entry, "this position lies outside of the objects"), kNothing;
  }
  const auto at = static_cast<size_t>(position);
  Head head = {bytes[at], at, at + 1, size_t{bytes[at]} & 0x0F};
  if (head.marker >= kHostPlistData && head.marker < 0xE0) {  // kinds with a count
    head.marker &= 0xF0;
    const bool isLarge = head.count == kHostPlistLargeCount && head.marker != kHostPlistUID;
    if (isLarge && !ReadCount(&head)) return kNothing;
  }
  if (head.marker == kHostPlistArray || head.marker == kHostPlistDict) {
    if (asKey) return FailKey(referrer);
    return OpenContainer(index, head) ? Added::kContainer : kNothing;
  }
  size_t size = 0;
  const HostCFObject* const object = MakeLeaf(head, &size);
  if (object == nullptr) {
    if (error->text.empty()) Fail(at, kHostPlistNoMemory);
    return kNothing;
  }
  known[index] = object;
  if (retains) object->Retain();
  if (!builder.Add(object, size)) return FailBuilding(referrer), kNothing;
  return asKey && object->TypeID() != kHostTypeString ? FailKey(referrer) : Added::kLeaf;
}

// Adds the object of the reference at `at`. Inlined into the loop that calls it.
[[gnu::always_inline]] inline BinaryReader::Added BinaryReader::AddReference(size_t at,
                                                                             bool asKey) {
  const uint64_t index = LoadBig(bytes + at, refSize);
  if (index >= objectCount) return Fail(at, "there is no such object"), Added::kNothing;
  const HostCFObject* const object = known[static_cast<size_t>(index)];
  if (object == nullptr) return AddObject(static_cast<size_t>(index), asKey, at);
  if (object == OpenMark()) return Fail(at, "a container contains itself"), Added::kNothing;
  object->Retain();
  if (!builder.Add(object, 0)) return FailBuilding(at), Added::kNothing;
  return asKey && object->TypeID() != kHostTypeString ? FailKey(at) : Added::kLeaf;
}

// Adds the items of the innermost container until one of them is a container, or closes it.
bool BinaryReader::ReadItems() {
  const size_t depth = frames.size();
  const Frame frame = frames.back();
  const size_t values = frame.refs + (frame.isDictionary ? frame.count * refSize : 0);
  for (size_t item = frame.next; item < frame.count; ++item) {
    if (frame.isDictionary && AddReference(frame.refs + item * refSize, true) == Added::kNothing) {
      return false;
    }
    const Added added = AddReference(values + item * refSize, false);
    if (added == Added::kNothing) return false;
    if (added == Added::kLeaf) continue;
    frames[depth - 1].next = item + 1;
    return true;
  }
  assert(frames.size() == depth && known[frame.index] == OpenMark());
  known[frame.index] = nullptr;
  frames.pop_back();
  return builder.Close() || FailBuilding(frame.refs);
}

CFPropertyListRef BinaryReader::Read(bool* again) {
  *again = false;
  error->text.clear();
  if (!ReadTrailer()) return nullptr;
  const size_t referrer = count - kHostPlistTrailerSize + kHostPlistRootAt;
  if (AddObject(root, false, referrer) == Added::kNothing) return nullptr;
  while (!frames.empty()) {
    if (!ReadItems()) return nullptr;
    *again = builder.HasDropped() && !retains;
    if (*again) return nullptr;
  }
  assert(builder.HasRoot());
  return builder.TakeRoot();
}

}  // namespace

CFPropertyListRef HostReadPlistBinary(const UInt8* bytes, size_t count,
                                      const HostPlistRequest& request,
                                      HostPropertyListError* error) {
  bool again = false;
  CFPropertyListRef list = BinaryReader(bytes, count, request, false, error).Read(&again);
  return again ? BinaryReader(bytes, count, request, true, error).Read(&again) : list;
}
