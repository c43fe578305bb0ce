#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFUUID.h>

#include <array>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/host/objects/cf_object.h"

struct __CFUUID final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeUUID;

  explicit __CFUUID(const CFUUIDBytes& bytes, Constant constant = Constant::kNo)
      : HostCFObject(kClass, constant), bytes(bytes) {}
  static __CFUUID* MakeConstant(const CFUUIDBytes& bytes) {
    return new __CFUUID(bytes, Constant::kYes);
  }

  bool Equal(const HostCFObject& other) const override {
    return memcmp(&bytes, &static_cast<const __CFUUID&>(other).bytes, sizeof bytes) == 0;
  }
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override;
  void LastRelease() override { delete this; }

  const CFUUIDBytes bytes;
};

static_assert(sizeof(CFUUIDBytes) == 16);

CFHashCode __CFUUID::Hash() const {
  UInt32 words[4];
  memcpy(words, &bytes, sizeof words);
  return words[0] ^ words[1] ^ words[2] ^ words[3];
}

CFStringRef __CFUUID::CopyDescription() const {
  UInt8 b[16];
  memcpy(b, &bytes, sizeof b);
  return CFStringCreateWithFormat(
      kCFAllocatorDefault, nullptr,
      CFSTR("%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X"), b[0], b[1],
      b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
}

namespace {

using Bytes = std::array<UInt8, 16>;

constinit std::mutex sConstantsMutex;

// Never destroyed, because constant objects may be used at any time.
std::map<Bytes, __CFUUID*>& LockedConstants() {
  static auto* sConstants = new std::map<Bytes, __CFUUID*>;
  return *sConstants;
}

}  // namespace

CFTypeID CFUUIDGetTypeID(void) { return kHostTypeUUID; }

CFUUIDRef CFUUIDCreateFromUUIDBytes(CFAllocatorRef, CFUUIDBytes bytes) {
  return new __CFUUID(bytes);
}

CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef ref) {
  const auto* uuid = HostCast<__CFUUID>(ref);
  return uuid != nullptr ? uuid->bytes : CFUUIDBytes{};
}

CFUUIDRef CFUUIDGetConstantUUIDWithBytes(CFAllocatorRef, UInt8 byte0, UInt8 byte1, UInt8 byte2,
                                         UInt8 byte3, UInt8 byte4, UInt8 byte5, UInt8 byte6,
                                         UInt8 byte7, UInt8 byte8, UInt8 byte9, UInt8 byte10,
                                         UInt8 byte11, UInt8 byte12, UInt8 byte13, UInt8 byte14,
                                         UInt8 byte15) {
  const Bytes key = {byte0, byte1, byte2,  byte3,  byte4,  byte5,  byte6,  byte7,
                     byte8, byte9, byte10, byte11, byte12, byte13, byte14, byte15};
  const std::lock_guard<std::mutex> lock(sConstantsMutex);
  __CFUUID*& constant = LockedConstants()[key];
  if (constant == nullptr) {
    CFUUIDBytes bytes;
    memcpy(&bytes, key.data(), sizeof bytes);
    constant = __CFUUID::MakeConstant(bytes);
  }
  return constant;
}
