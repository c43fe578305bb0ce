#include "platform/host/plist/binary_write.h"

#include <bit>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/hash.h"
#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_array.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/binary.h"
#include "platform/host/plist/output.h"
#include "platform/host/plist/walk.h"

// BinaryWriter goes over the list once and over its table of objects once:
//
//   Number       walks the list and gives each container, and each leaf that is not yet in
//                LeafTable, the next number; the root is 0. The numbers of a container's items
//                wait in `pending` until it closes, and then move to `references`, keys before
//                values, because a container that is inside comes in between.
//   Write        writes the objects in the order of their numbers and notes where each begins, then
//                the table of positions and the trailer.
//
// The first pass is needed because the size of a reference depends on the number of objects. Equal
// leaves are written once, where equal means that their bytes would be: 1 and 1.0 are two, and so
// are 0.0 and -0.0. There are at most 2^31 - 1 objects and as many references. Nothing
// is locked.

namespace {

// The bytes that a number needs: 1, 2, 4 or 8; for positions and references 3 will do too.
size_t WidthOf(UInt64 value, bool mayBeThree) {
  if (value <= 0xFF) return 1;
  if (value <= 0xFFFF) return 2;
  if (mayBeThree && value <= 0xFFFFFF) return 3;
  return value <= 0xFFFFFFFF ? 4 : 8;
}

// Writes the last `size` bytes of a number, 1 to 8. There must be room for eight bytes; those after
// the first `size` are overwritten by what is written next.
UInt8* PutBig(UInt64 value, size_t size, UInt8* at) {
  HostStoreBig64(at, value << (64 - 8 * size));
  return at + size;
}

bool IsWide(const HostCFString& string) { return string.ASCII() == nullptr; }

// The bits of a number or date by which it differs from others that are written differently.
struct Scalar {
  UInt8 marker;
  UInt64 bits;
};

Scalar ScalarOf(const HostCFObject& object) {
  if (object.TypeID() == kHostTypeDate) {
    const double time = static_cast<const HostCFDate&>(object).Time();
    return {kHostPlistDate, std::bit_cast<UInt64>(time)};
  }
  const auto& number = static_cast<const HostCFNumber&>(object);
  switch (number.StoredForm()) {
    case HostCFNumber::Form::kFloat32: {
      const auto real = static_cast<float>(number.Real());
      return {kHostPlistReal | 2, std::bit_cast<UInt32>(real)};
    }
    case HostCFNumber::Form::kFloat64:
      return {kHostPlistReal | 3, std::bit_cast<UInt64>(number.Real())};
    case HostCFNumber::Form::kUInt64:
      return {kHostPlistInteger | 4, number.Unsigned()};
    default:
      break;
  }
  const SInt64 value = number.Integer();
  const size_t width = value < 0 ? 8 : WidthOf(static_cast<UInt64>(value), false);
  return {static_cast<UInt8>(kHostPlistInteger | std::countr_zero(width)),
          static_cast<UInt64>(value)};
}

// LeafTable finds the number under which an equal leaf is already written. Open addressing with
// linear probing; it doubles when it is half full, so a search always meets a free slot.
class LeafTable {
 public:
  LeafTable() : slots(256) {}

  // The object of that number is `leaf` or an equal one; `next` is what a new one gets.
  UInt32 Find(const HostCFObject& leaf, UInt32 next, const std::vector<const HostCFObject*>& all);

 private:
  struct Slot {
    UInt32 hash = 0;
    UInt32 number = kFree;
  };
  static constexpr UInt32 kFree = 0xFFFFFFFF;

  static UInt32 HashOf(const HostCFObject& leaf);
  static bool AreSame(const HostCFObject& a, const HostCFObject& b);
  void Grow();

  std::vector<Slot> slots;
  size_t used = 0;
};

UInt32 LeafTable::HashOf(const HostCFObject& leaf) {
  switch (leaf.TypeID()) {
    case kHostTypeString:
      return static_cast<const HostCFString&>(leaf).TextHash();
    case kHostTypeBoolean:
      return static_cast<const HostCFBoolean&>(leaf).is ? 1 : 0;
    case kHostTypeData: {
      const auto& data = static_cast<const HostCFData&>(leaf);
      return HostHashBytes(data.Bytes(), data.Length());
    }
    default: {
      const Scalar scalar = ScalarOf(leaf);
      const UInt64 key[] = {scalar.bits, scalar.marker};
      return HostHashBytes(key, sizeof key);
    }
  }
}

bool LeafTable::AreSame(const HostCFObject& a, const HostCFObject& b) {
  if (&a == &b) return true;
  if (a.TypeID() != b.TypeID()) return false;
  if (a.TypeID() == kHostTypeNumber || a.TypeID() == kHostTypeDate) {
    const Scalar x = ScalarOf(a);
    const Scalar y = ScalarOf(b);
    return x.marker == y.marker && x.bits == y.bits;
  }
  return a.Equal(b);
}

void LeafTable::Grow() {
  std::vector<Slot> larger(slots.size() * 2);
  const size_t mask = larger.size() - 1;
  for (const Slot& slot : slots) {
    if (slot.number == kFree) continue;
    size_t i = slot.hash & mask;
    while (larger[i].number != kFree) i = (i + 1) & mask;
    larger[i] = slot;
  }
  slots.swap(larger);
}

UInt32 LeafTable::Find(const HostCFObject& leaf, UInt32 next,
                       const std::vector<const HostCFObject*>& all) {
  const UInt32 hash = HashOf(leaf);
  const size_t mask = slots.size() - 1;
  size_t i = hash & mask;
  for (; slots[i].number != kFree; i = (i + 1) & mask) {
    if (slots[i].hash == hash && AreSame(*all[slots[i].number], leaf)) return slots[i].number;
  }
  slots[i] = {hash, next};
  if (++used * 2 > slots.size()) Grow();
  return next;
}

class BinaryWriter {
 public:
  explicit BinaryWriter(HostPlistSink& sink) : out(sink) {
    objects.reserve(kUsualObjects);
    pending.reserve(kUsualObjects);
    references.reserve(kUsualObjects);
    firstReference.reserve(kUsualObjects);
  }

  bool Write(CFPropertyListRef list, HostPropertyListError* error);

 private:
  static constexpr size_t kMostObjects = INT32_MAX;
  static constexpr size_t kUsualObjects = 128;  // small lists should not grow theirs step by step

  bool Number(CFPropertyListRef list);
  bool NumberStep(const HostPlistWalk& walk);
  bool NumberLeaf(const HostCFObject* leaf);
  void CloseContainer(const HostCFObject* container);
  bool Fail(const char* why) {
    problem = why;
    return false;
  }

  void PutHead(UInt8 kind, size_t count);
  void PutScalar(const HostCFObject& object);
  void PutText(const HostCFString& string);
  void PutContainer(const HostCFObject& container, const UInt32* reference);
  void PutObject(size_t number);
  void PutTable(const std::vector<UInt64>& positions);

  HostPlistOutput out;
  const char* problem = nullptr;
  LeafTable leaves;
  std::vector<const HostCFObject*> objects;  // by number
  // While numbering: the numbers of what is in the open containers so far, and where in it each
  // container's own begin.
  std::vector<UInt32> pending;
  std::vector<size_t> starts;
  std::vector<UInt32> opened;  // their own numbers
  // The references of all closed containers, with the keys of each before its values; and the index
  // at which those of an object begin, by its number (0 for leaves).
  std::vector<UInt32> references;
  std::vector<size_t> firstReference;
  size_t refSize = 1;
};

bool BinaryWriter::NumberLeaf(const HostCFObject* leaf) {
  if (leaf->TypeID() == kHostTypeDate &&
      !HostIsPlistDate(static_cast<const HostCFDate*>(leaf)->Time())) {
    return Fail("a date lies outside of the years 1 to 9999");
  }
  const auto next = static_cast<UInt32>(objects.size());
  const UInt32 number = leaves.Find(*leaf, next, objects);
  if (number == next) {
    objects.push_back(leaf);
    firstReference.push_back(0);
  }
  pending.push_back(number);
  return true;
}

// Keys and values were met in turn; the keys are written first.
void BinaryWriter::CloseContainer(const HostCFObject* container) {
  assert(!starts.empty() && starts.size() == opened.size());
  const size_t start = starts.back();
  firstReference[opened.back()] = references.size();
  if (container->TypeID() == kHostTypeArray) {
    references.insert(references.end(), pending.begin() + static_cast<ptrdiff_t>(start),
                      pending.end());
  } else {
    assert((pending.size() - start) % 2 == 0);
    const size_t count = (pending.size() - start) / 2;
    const size_t first = references.size();
    references.resize(first + 2 * count);
    for (size_t i = 0; i < count; ++i) {
      references[first + i] = pending[start + 2 * i];
      references[first + count + i] = pending[start + 2 * i + 1];
    }
  }
  pending.resize(start);
  starts.pop_back();
  opened.pop_back();
}

bool BinaryWriter::NumberStep(const HostPlistWalk& walk) {
  if (walk.Current() == HostPlistWalk::Step::kClose) {
    CloseContainer(walk.Object());
    return true;
  }
  if (objects.size() >= kMostObjects || references.size() + pending.size() >= kMostObjects) {
    return Fail("the list has too many objects");
  }
  if (walk.Key() != nullptr && !NumberLeaf(walk.Key())) return false;
  if (walk.Current() == HostPlistWalk::Step::kLeaf) return NumberLeaf(walk.Object());
  const auto number = static_cast<UInt32>(objects.size());
  objects.push_back(walk.Object());
  firstReference.push_back(0);
  pending.push_back(number);
  opened.push_back(number);
  starts.push_back(pending.size());
  return true;
}

bool BinaryWriter::Number(CFPropertyListRef list) {
  HostPlistWalk walk(list, HostPlistWalk::Order::kStored);
  while (walk.Next() && NumberStep(walk)) {
  }
  if (walk.Fault() != nullptr) problem = walk.Fault();
  assert(problem != nullptr || (opened.empty() && pending.size() == 1));
  assert(objects.size() == firstReference.size());
  refSize = WidthOf(objects.size(), true);
  return problem == nullptr;
}

void BinaryWriter::PutHead(UInt8 kind, size_t count) {
  UInt8* at = out.Reserve(16);
  UInt8* const start = at;
  if (count < kHostPlistLargeCount) {
    *at++ = static_cast<UInt8>(kind | count);
  } else {
    const size_t width = WidthOf(count, false);
    *at++ = kind | kHostPlistLargeCount;
    *at++ = static_cast<UInt8>(kHostPlistInteger | std::countr_zero(width));
    at = PutBig(count, width, at);
  }
  out.Advance(static_cast<size_t>(at - start));
}

void BinaryWriter::PutScalar(const HostCFObject& object) {
  const Scalar scalar = ScalarOf(object);
  const size_t size = size_t{1} << (scalar.marker & 0x0F);
  UInt8* at = out.Reserve(1 + 2 * sizeof(UInt64));
  *at++ = scalar.marker;
  if (size == 16) at = PutBig(0, 8, at);
  PutBig(scalar.bits, size == 16 ? 8 : size, at);
  out.Advance(1 + size);
}

void BinaryWriter::PutText(const HostCFString& string) {
  const HostTextView text = string.Text();
  PutHead(IsWide(string) ? kHostPlistUTF16 : kHostPlistASCII, text.length);
  if (!IsWide(string)) return out.Put(text.narrow, text.length);
  for (size_t i = 0; i < text.length; ++i) {
    HostStoreBig16(out.Reserve(2), text.At(i));
    out.Advance(2);
  }
}

void BinaryWriter::PutContainer(const HostCFObject& container, const UInt32* reference) {
  const size_t count = static_cast<const HostContainer&>(container).ItemCount();
  const bool isArray = container.TypeID() == kHostTypeArray;
  PutHead(isArray ? kHostPlistArray : kHostPlistDict, count);
  for (const UInt32* const end = reference + (isArray ? count : count * 2); reference < end;) {
    PutBig(*reference++, refSize, out.Reserve(sizeof(UInt64)));
    out.Advance(refSize);
  }
}

void BinaryWriter::PutObject(size_t number) {
  const HostCFObject& object = *objects[number];
  switch (object.TypeID()) {
    case kHostTypeArray:
    case kHostTypeDictionary:
      return PutContainer(object, references.data() + firstReference[number]);
    case kHostTypeString:
      return PutText(static_cast<const HostCFString&>(object));
    case kHostTypeData: {
      const auto& data = static_cast<const HostCFData&>(object);
      PutHead(kHostPlistData, data.Length());
      return out.Put(data.Bytes(), data.Length());
    }
    case kHostTypeBoolean: {
      const bool is = static_cast<const HostCFBoolean&>(object).is;
      const UInt8 marker = is ? kHostPlistTrue : kHostPlistFalse;
      return out.Put(&marker, 1);
    }
    default:
      return PutScalar(object);
  }
}

void BinaryWriter::PutTable(const std::vector<UInt64>& positions) {
  const UInt64 table = out.Total();
  const size_t offsetSize = WidthOf(table, true);
  for (const UInt64 position : positions) {
    PutBig(position, offsetSize, out.Reserve(sizeof(UInt64)));
    out.Advance(offsetSize);
  }
  UInt8 trailer[kHostPlistTrailerSize] = {};
  trailer[kHostPlistOffsetSizeAt] = static_cast<UInt8>(offsetSize);
  trailer[kHostPlistRefSizeAt] = static_cast<UInt8>(refSize);
  HostStoreBig64(trailer + kHostPlistObjectCountAt, positions.size());
  HostStoreBig64(trailer + kHostPlistTableAt, table);
  out.Put(trailer, sizeof trailer);
}

bool BinaryWriter::Write(CFPropertyListRef list, HostPropertyListError* error) {
  if (Number(list)) {
    out.Put(kHostPlistMagic, kHostPlistMagicSize);
    std::vector<UInt64> positions;
    positions.reserve(objects.size());
    for (size_t number = 0; number < objects.size() && out.IsGood(); ++number) {
      positions.push_back(out.Total());
      PutObject(number);
    }
    PutTable(positions);
    if (!out.Flush()) problem = "the bytes could not be written";
  }
  if (problem != nullptr) *error = {problem, ""};
  return problem == nullptr;
}

}  // namespace

bool HostWritePlistBinary(CFPropertyListRef list, HostPlistSink& sink,
                          HostPropertyListError* error) {
  if (bool isWritten = false;
      HostGuard([&] { isWritten = BinaryWriter(sink).Write(list, error); })) {
    return isWritten;
  }
  *error = {kHostPlistNoMemory, ""};
  return false;
}
