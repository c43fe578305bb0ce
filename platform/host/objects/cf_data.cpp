#include "platform/host/objects/cf_data.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_string.h"

__CFData* __CFData::CreateToFill(size_t room, UInt8** bytes, HostObjectPool* pool) {
  if (room > INT32_MAX || room > PTRDIFF_MAX - sizeof(__CFData)) return nullptr;
  const HostObjectBlock block = HostObjectPool::Take(pool, sizeof(__CFData) + room);
  if (block.bytes == nullptr) return nullptr;
  *bytes = static_cast<UInt8*>(block.bytes) + sizeof(__CFData);
  auto* data = new (block.bytes) __CFData(*bytes, room, kCFAllocatorNull);
  data->RememberBlock(block);
  return data;
}

__CFData* __CFData::Create(const UInt8* bytes, size_t count, HostObjectPool* pool) {
  UInt8* copy = nullptr;
  __CFData* data = CreateToFill(count, &copy, pool);
  if (data != nullptr && count > 0) std::memcpy(copy, bytes, count);
  return data;
}

__CFData* __CFData::CreateNoCopy(const UInt8* bytes, size_t count, CFAllocatorRef deallocator) {
  if (count > INT32_MAX) return nullptr;
  void* block = ::operator new(sizeof(__CFData), std::nothrow);
  return block != nullptr ? new (block) __CFData(bytes, count, deallocator) : nullptr;
}

void __CFData::LastRelease() {
  static_assert(std::is_trivially_destructible_v<__CFData>);
  CFAllocatorDeallocate(deallocator, const_cast<UInt8*>(bytes));
  FreeBlock();
}

bool __CFData::Equal(const HostCFObject& object) const {
  const auto& other = static_cast<const __CFData&>(object);
  return length == other.length && (length == 0 || std::memcmp(bytes, other.bytes, length) == 0);
}

CFHashCode __CFData::Hash() const { return HostHashBytes(bytes, length); }

CFStringRef __CFData::CopyDescription() const {
  constexpr size_t kMaxShown = 24;
  char text[2 * kMaxShown + 1] = "";
  for (size_t i = 0; i < std::min<size_t>(length, kMaxShown); ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  return CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("<%s%s> (%u bytes)"), text,
                                  length > kMaxShown ? "..." : "", static_cast<unsigned>(length));
}

CFTypeID CFDataGetTypeID(void) { return kHostTypeData; }

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8* bytes, CFIndex length) {
  if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
  return HostCFData::Create(bytes, static_cast<size_t>(length));
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef, const UInt8* bytes, CFIndex length,
                                      CFAllocatorRef deallocator) {
  if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
  return HostCFData::CreateNoCopy(bytes, static_cast<size_t>(length), deallocator);
}

CFIndex CFDataGetLength(CFDataRef ref) {
  const auto* data = HostCast<HostCFData>(ref);
  return data != nullptr ? static_cast<CFIndex>(data->Length()) : 0;
}

const UInt8* CFDataGetBytePtr(CFDataRef ref) {
  const auto* data = HostCast<HostCFData>(ref);
  if (data == nullptr) return nullptr;
  static constexpr UInt8 kNothing = 0;
  return data->Bytes() != nullptr ? data->Bytes() : &kNothing;
}

void CFDataGetBytes(CFDataRef ref, CFRange range, UInt8* buffer) {
  const auto* data = HostCast<HostCFData>(ref);
  if (data == nullptr || buffer == nullptr || range.location < 0 || range.length <= 0) return;
  const auto first = static_cast<size_t>(range.location);
  const auto count = static_cast<size_t>(range.length);
  if (first > data->Length() || count > data->Length() - first) return;
  std::memcpy(buffer, data->Bytes() + first, count);
}
