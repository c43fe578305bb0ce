#include "platform/host/objects/cf_date.h"

#include <bit>
#include <cmath>
#include <new>

#include "platform/host/base/hash.h"
#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_string.h"

constinit const CFTimeInterval kCFAbsoluteTimeIntervalSince1970 = 978307200.0;

__CFDate* __CFDate::Create(CFAbsoluteTime time, HostObjectPool* pool) {
  static_assert(std::is_trivially_destructible_v<__CFDate>);
  const HostObjectBlock block = HostObjectPool::Take(pool, sizeof(__CFDate));
  if (block.bytes == nullptr) return nullptr;
  auto* date = new (block.bytes) __CFDate(time);
  date->RememberBlock(block);
  return date;
}

bool __CFDate::Equal(const HostCFObject& object) const {
  const auto& other = static_cast<const __CFDate&>(object);
  return time == other.time || (std::isnan(time) && std::isnan(other.time));
}

CFHashCode __CFDate::Hash() const {
  if (std::isnan(time)) return 1;
  return HostHashWord(std::bit_cast<UInt64>(time == 0 ? 0.0 : time));  // -0 equals 0
}

CFStringRef __CFDate::CopyDescription() const {
  char text[kHostPlistDateSize];
  if (HostFormatPlistDate(time, text)) {
    return HostCFString::CreateASCII(reinterpret_cast<const UInt8*>(text), sizeof text);
  }
  return CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("<CFDate %.3f>"), time);
}

CFTypeID CFDateGetTypeID(void) { return kHostTypeDate; }

CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime time) { return HostCFDate::Create(time); }

CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef ref) {
  const auto* date = HostCast<HostCFDate>(ref);
  return date != nullptr ? date->Time() : 0;
}

CFComparisonResult CFDateCompare(CFDateRef a, CFDateRef b, void*) {
  const auto* left = HostCast<HostCFDate>(a);
  const auto* right = HostCast<HostCFDate>(b);
  if (left == nullptr || right == nullptr) return (left != nullptr) - (right != nullptr);
  return (left->Time() > right->Time()) - (left->Time() < right->Time());
}
