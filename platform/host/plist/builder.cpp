#include "platform/host/plist/builder.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_array.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_number.h"

namespace {

constexpr size_t kLeastValues = 64;
constexpr size_t kSmallestWithPool = 1024;

size_t StringSize(size_t count) { return sizeof(HostCFString) + count + 1; }

// The limit of the memory besides the file. A part of the 4 MiB is left for memory that is not
// counted.
size_t MemoryLimit(size_t inputSize, size_t factor) {
  const uint64_t limit = uint64_t{inputSize} * (factor - 1) + (uint64_t{3} << 20);
  return static_cast<size_t>(std::min<uint64_t>(limit, PTRDIFF_MAX));
}

// memcmp is a call, and keys are short.
bool AreSame(const UInt8* a, const UInt8* b, size_t count) {
  uint64_t x, y;
  const auto areWordsSame = [&](size_t at) {
    std::memcpy(&x, a + at, sizeof x);
    std::memcpy(&y, b + at, sizeof y);
    return x == y;
  };
  if (count >= sizeof x) {
    const size_t last = count - sizeof x;
    for (size_t at = 0; at < last; at += sizeof x) {
      if (!areWordsSame(at)) return false;
    }
    return areWordsSame(last);
  }
  for (size_t i = 0; i < count; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

// The first capacity of the list of items; a small list may have to grow.
size_t FirstCapacity(size_t inputSize, size_t leastItem) {
  constexpr size_t kSmall = 64 * 1024;
  return inputSize < kSmall ? kLeastValues : inputSize / leastItem + 1;
}

size_t KeysWorthRemembering(size_t inputSize) {
  return std::bit_ceil(std::clamp<size_t>(inputSize / 64, 32, 8192));
}

}  // namespace

HostPlistBuilder::HostPlistBuilder(size_t inputSize, size_t factor, size_t leastItem,
                                   const HostPlistRequest& request)
    : isMutable(request.mutability != kCFPropertyListImmutable),
      keysWorthRemembering(KeysWorthRemembering(inputSize)),
      firstCapacity(FirstCapacity(inputSize, leastItem)),
      usesPool(request.mayShareBlocks && inputSize >= kSmallestWithPool),
      memoryLeft(MemoryLimit(inputSize, factor)) {}

HostPlistBuilder::HostPlistBuilder(CFOptionFlags mutability)
    : isMutable(mutability != kCFPropertyListImmutable),
      keysWorthRemembering(KeysWorthRemembering(0)),
      firstCapacity(kLeastValues),
      usesPool(false),
      memoryLeft(SIZE_MAX) {}

HostPlistBuilder::~HostPlistBuilder() {
  for (size_t i = 0; i < valueCount; ++i) CFRelease(values[i]);
  std::free(values);
}

bool HostPlistBuilder::Fail(const char* why) {
  problem = why;
  return false;
}

bool HostPlistBuilder::FailForSize() {
  return Fail("the list takes too much memory for a file of this size");
}

bool HostPlistBuilder::RaiseLimit() {
  if (valueLimit == valueCapacity && !GrowValues()) return false;
  const size_t more = std::min<size_t>(1024, valueCapacity - valueLimit);
  if (!Charge(more * sizeof(CFTypeRef))) return false;
  valueLimit += more;
  return true;
}

bool HostPlistBuilder::GrowValues() {
  size_t larger = valueCapacity == 0 ? firstCapacity : valueCapacity * 2;
  void* moved = std::realloc(values, larger * sizeof(CFTypeRef));
  if (moved == nullptr && valueCapacity == 0) {
    larger = kLeastValues;
    moved = std::malloc(larger * sizeof(CFTypeRef));
  }
  if (moved == nullptr) return FailForMemory();
  values = static_cast<CFTypeRef*>(moved);
  valueCapacity = larger;
  return true;
}

bool HostPlistBuilder::Drop(const HostCFObject* taken) {
  taken->Release();
  return false;
}

bool HostPlistBuilder::Open(Kind kind) {
  if (frames.size() == kHostPlistDepth) return Fail("containers nest more than 512 levels deep");
  frames.push_back({valueCount, kind});
  return true;
}

bool HostPlistBuilder::Close() {
  const Frame frame = frames.back();
  const size_t count = valueCount - frame.firstValue;
  const CFTypeRef* first = values + frame.firstValue;
  size_t size = count * sizeof(CFTypeRef);
  const HostCFObject* container = nullptr;
  if (frame.kind == Kind::kArray) {
    size += sizeof(HostCFArray);
    if (!Charge(BlockSize(size))) return false;
    container = HostCFArray::CreateTaking(first, count, isMutable, Pool());
  } else {
    // A large one has an index beside its pairs.
    size += sizeof(HostCFDictionary) + (count > 16 ? count * sizeof(CFTypeRef) * 2 : 0);
    if (!Charge(BlockSize(size))) return false;
    static_assert(sizeof(HostPair) == 2 * sizeof(CFTypeRef));
    const auto* dictionary = HostCFDictionary::CreateTaking(
        reinterpret_cast<const HostPair*>(first), count / 2, isMutable, Pool());
    // The value that a repeated key replaced may have held the last reference to a known key.
    if (dictionary != nullptr && dictionary->Count() != count / 2) {
      hasDropped = true;
      ++era;
    }
    container = dictionary;
  }
  if (container == nullptr) return FailForMemory();
  frames.pop_back();
  valueCount = frame.firstValue;  // the container has the references now
  return Push(container);
}

bool HostPlistBuilder::AddKey(const UInt8* text, size_t count) {
  if (keys.empty()) keys.resize(keysWorthRemembering);
  const UInt32 hash = HostHashBytes(text, count);
  KnownKey& known = keys[hash & (keys.size() - 1)];
  if (known.hash == hash && known.era == era && known.key->Length() == count &&
      AreSame(known.key->Latin1(), text, count)) {
    known.wasShared = true;
    known.key->Retain();
    return Push(known.key);
  }
  const auto* key = HostCFString::CreateASCII(text, count, Pool(), hash);
  if (!Add(key, StringSize(count))) return false;
  if (known.era != era || !known.wasShared)
    known = {hash, era, false, key};
  else
    known.wasShared = false;
  return true;
}

bool HostPlistBuilder::AddKeyAsValue() {
  const auto* key = static_cast<const HostCFObject*>(values[valueCount - 1]);
  key->Retain();
  return Push(key);
}

bool HostPlistBuilder::AddString(const UInt8* text, size_t count) {
  return Add(HostCFString::CreateASCII(text, count, Pool()), StringSize(count));
}

bool HostPlistBuilder::AddInteger(bool isNegative, UInt64 magnitude) {
  auto* number = isNegative ? HostCFNumber::CreateSInt64(static_cast<SInt64>(0 - magnitude), Pool())
                            : HostCFNumber::CreateUInt64(magnitude, Pool());
  return Add(number, sizeof(HostCFNumber));
}

bool HostPlistBuilder::AddReal(double value) {
  return Add(HostCFNumber::CreateFloat64(value, Pool()), sizeof(HostCFNumber));
}

bool HostPlistBuilder::AddDate(CFAbsoluteTime time) {
  return Add(HostCFDate::Create(time, Pool()), sizeof(HostCFDate));
}

bool HostPlistBuilder::AddBoolean(bool value) {
  return Add(value ? kCFBooleanTrue : kCFBooleanFalse, 0);
}

bool HostPlistBuilder::AddData(const UInt8* bytes, size_t count) {
  return Add(HostCFData::Create(bytes, count, Pool()), sizeof(HostCFData) + count);
}

CFPropertyListRef HostPlistBuilder::TakeRoot() {
  const CFTypeRef root = values[--valueCount];
  ++era;  // the keys may be destroyed at any time from now on
  return root;
}
