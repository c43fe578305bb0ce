#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/host/objects/cf_object.h"

// What the tests of counted objects share.

// Owns the reference that a Create or Copy call gave.
template <class Ref>
class OwnedRef {
 public:
  OwnedRef(Ref taken = nullptr) : ref(taken) {}
  OwnedRef(OwnedRef&& other) noexcept : ref(other.ref) { other.ref = nullptr; }
  OwnedRef& operator=(OwnedRef&& other) noexcept {
    std::swap(ref, other.ref);
    return *this;
  }
  ~OwnedRef() { CFRelease(ref); }
  operator Ref() const { return ref; }

 private:
  Ref ref;
};

inline std::string TextOf(CFStringRef string) {
  char buffer[4096];
  EXPECT_TRUE(CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8));
  return buffer;
}

inline std::string DescriptionOf(CFTypeRef object) {
  return TextOf(OwnedRef<CFStringRef>(CFCopyDescription(object)));
}

inline OwnedRef<CFNumberRef> Number(SInt32 value) {
  return CFNumberCreate(kCFAllocatorDefault, kCFNumberIntType, &value);
}

inline OwnedRef<CFStringRef> String(const std::string& utf8) {
  return CFStringCreateWithCString(kCFAllocatorDefault, utf8.c_str(), kCFStringEncodingUTF8);
}

inline OwnedRef<CFMutableArrayRef> MutableArray() {
  return CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks);
}

inline OwnedRef<CFMutableDictionaryRef> MutableDictionary() {
  return CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                   &kCFTypeDictionaryValueCallBacks);
}
