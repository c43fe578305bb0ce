#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/host/objects/cf_object.h"
#include "util/owned_ref.h"

// Shared by the tests of counted objects.

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
