#include "platform/host/objects/cf_object.h"

#include <cstdint>
#include <cstdlib>
#include <iterator>

#include <CoreFoundation/CFString.h>

// Allocators differ only in what they do with bytes that are handed over.
struct __CFAllocator final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeAllocator;
  constexpr __CFAllocator() : HostCFObject(kClass, Constant::kYes) {}
  void LastRelease() override {}  // never called: constants are not counted
};

namespace {

constinit __CFAllocator gSystemDefaultAllocator;
constinit __CFAllocator gMallocAllocator;
constinit __CFAllocator gNullAllocator;

constexpr const char* kTypeNames[] = {
    "Not A Type",      "CFAllocator",    "CFString",      "CFNumber",     "CFBoolean",
    "CFData",          "CFDate",         "CFArray",       "CFDictionary", "CFURL",
    "CFUUID",          "CFReadStream",   "CFWriteStream", "CFRunLoop",    "CFRunLoopMode",
    "CFRunLoopSource", "CFRunLoopTimer", "CFMachPort",
};
static_assert(std::size(kTypeNames) == kHostTypeCount);

const char* TypeName(CFTypeID type) { return kTypeNames[type < kHostTypeCount ? type : 0]; }

const HostCFObject* Object(CFTypeRef ref) { return static_cast<const HostCFObject*>(ref); }

}  // namespace

bool HostCFObject::RetainUnlessDying() const {
  UInt32 count = references.load(std::memory_order_relaxed);
  while (count != 0) {
    if (IsConstant(count)) return true;
    if (references.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

CFIndex HostCFObject::RetainCount() const {
  const UInt32 count = references.load(std::memory_order_relaxed);
  return count <= INT32_MAX ? static_cast<CFIndex>(count) : INT32_MAX;
}

CFHashCode HostCFObject::Hash() const {
  const uint64_t address = reinterpret_cast<uintptr_t>(this);
  return static_cast<CFHashCode>((address >> 4) ^ (address >> 36));
}

CFStringRef HostCFObject::CopyDescription() const {
  return CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("<%s %p>"), TypeName(typeID),
                                  static_cast<const void*>(this));
}

constinit const CFAllocatorRef kCFAllocatorSystemDefault = &gSystemDefaultAllocator;
constinit const CFAllocatorRef kCFAllocatorMalloc = &gMallocAllocator;
constinit const CFAllocatorRef kCFAllocatorNull = &gNullAllocator;

void* CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags) {
  if (allocator == kCFAllocatorNull || size <= 0) return nullptr;
  return std::malloc(static_cast<size_t>(size));
}

void CFAllocatorDeallocate(CFAllocatorRef allocator, void* block) {
  if (allocator != kCFAllocatorNull) std::free(block);
}

CFTypeRef CFRetain(CFTypeRef object) {
  if (object != nullptr) Object(object)->Retain();
  return object;
}

void CFRelease(CFTypeRef object) {
  if (object != nullptr) Object(object)->Release();
}

CFIndex CFGetRetainCount(CFTypeRef object) {
  return object != nullptr ? Object(object)->RetainCount() : 0;
}

Boolean CFEqual(CFTypeRef a, CFTypeRef b) {
  if (a == b) return true;
  if (a == nullptr || b == nullptr) return false;
  return Object(a)->TypeID() == Object(b)->TypeID() && Object(a)->Equal(*Object(b));
}

CFHashCode CFHash(CFTypeRef object) { return object != nullptr ? Object(object)->Hash() : 0; }

CFTypeID CFGetTypeID(CFTypeRef object) {
  return object != nullptr ? Object(object)->TypeID() : CFTypeID{kHostTypeNone};
}

CFAllocatorRef CFGetAllocator(CFTypeRef object) {
  return object != nullptr ? kCFAllocatorSystemDefault : nullptr;
}

CFStringRef CFCopyTypeIDDescription(CFTypeID type) {
  return CFStringCreateWithCString(kCFAllocatorDefault, TypeName(type), kCFStringEncodingASCII);
}

CFStringRef CFCopyDescription(CFTypeRef object) {
  return object != nullptr ? Object(object)->CopyDescription() : nullptr;
}
