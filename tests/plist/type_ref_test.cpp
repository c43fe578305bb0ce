#include "plist/type_ref.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <string>

#include "plist/stack_refs.h"

namespace {

CFStringRef NewString(const char* text) {
  return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingMacRoman);
}

std::string TextOf(CFTypeRef string) {
  char text[64] = "";
  CFStringGetCString(static_cast<CFStringRef>(string), text, sizeof text, kCFStringEncodingUTF8);
  return text;
}

TEST(StackRefs, HoldTheStringNumberOrBytesThatTheyAreMadeFromAndReleaseThem) {
  const unsigned char pascal[] = "\4Rome";
  EXPECT_EQ(nullptr, static_cast<CFTypeRef>(StackCFString()));
  EXPECT_EQ(nullptr, static_cast<CFTypeRef>(StackCFString(static_cast<const char*>(nullptr))));
  EXPECT_EQ("key", TextOf(StackCFString("key")));
  EXPECT_EQ("'SmoN'", TextOf(StackCFString(FourCC('S', 'm', 'o', 'N'))));
  EXPECT_EQ("Rome", TextOf(StackCFPascalString(pascal)));
  const StackCFData data(pascal, 2);
  EXPECT_EQ(2, CFDataGetLength(static_cast<CFDataRef>(static_cast<CFTypeRef>(data))));

  const CFStringRef given = NewString("given");
  {
    StackCFString holder(given);
    CFStringRef& slot = holder;
    EXPECT_EQ(given, slot);
    EXPECT_EQ(2, CFGetRetainCount(given));
  }
  EXPECT_EQ(1, CFGetRetainCount(given));
  CFRelease(given);
}

TEST(ReferenceSlots, AssignReleaseAndAdjustChangeTheCountByWhatTheyPromise) {
  const CFStringRef a = NewString("a"), b = NewString("b");
  const void* slot = nullptr;
  EXPECT_EQ(nullptr, VLTCFAssignReference(nullptr, a));
  EXPECT_EQ(&slot, VLTCFAssignReference(&slot, a));
  EXPECT_EQ(2, CFGetRetainCount(a));
  VLTCFAssignReference(&slot, a);  // held already
  EXPECT_EQ(2, CFGetRetainCount(a));
  VLTCFAssignReference(&slot, b);
  EXPECT_EQ(1, CFGetRetainCount(a));
  EXPECT_EQ(2, CFGetRetainCount(b));
  EXPECT_EQ(b, VLTCFAdjustRetainCount(&slot, 3));
  EXPECT_EQ(5, CFGetRetainCount(b));
  EXPECT_EQ(nullptr, VLTCFAdjustRetainCount(&slot, -3));  // null also while it is held
  EXPECT_EQ(b, slot);
  EXPECT_EQ(2, CFGetRetainCount(b));
  EXPECT_EQ(&slot, VLTCFReleaseReference(&slot));
  EXPECT_EQ(nullptr, slot);
  EXPECT_EQ(1, CFGetRetainCount(b));
  EXPECT_EQ(nullptr, VLTCFAdjustRetainCount(&slot, 1));

  // More than there are: all of them, and the slot is empty.
  slot = b;
  EXPECT_EQ(nullptr, VLTCFAdjustRetainCount(&slot, -7));
  EXPECT_EQ(nullptr, slot);
  CFRelease(a);
}

TEST(ReferenceSlots, AssigningRetainsTheNewObjectBeforeItReleasesTheOldOne) {
  static CFIndex countAtRelease = 0;
  const CFStringRef inner = NewString("inner");
  CFArrayCallBacks callbacks = {};
  callbacks.release = [](CFAllocatorRef, const void* value) {
    countAtRelease = CFGetRetainCount(value);
  };
  const void* values[] = {inner};
  const void* slot = CFArrayCreate(nullptr, values, 1, &callbacks);
  VLTCFAssignReference(&slot, inner);
  EXPECT_EQ(2, countAtRelease);
  VLTCFReleaseReference(&slot);
  CFRelease(inner);
}

TEST(TypeRef, AssignRetainsAndAssumeDoesNot) {
  const CFStringRef first = NewString("first"), second = NewString("second");
  CFRetain(first);
  {
    VLTCFString holder;
    EXPECT_TRUE(holder.Equals(nullptr));
    EXPECT_EQ(0u, holder.GetCFTypeID());
    EXPECT_EQ(nullptr, holder.CopyCFDescription());
    char text[8];
    EXPECT_EQ(paramErr, holder.GetCString(text, sizeof text, kCFStringEncodingMacRoman));

    EXPECT_EQ(first, holder.Assign(first, 1));
    EXPECT_EQ(3, CFGetRetainCount(first));
    EXPECT_FALSE(holder.Equals(nullptr));
    EXPECT_EQ(0, holder.GetCString(text, 6, kCFStringEncodingMacRoman));
    EXPECT_STREQ("first", text);
    EXPECT_EQ(paramErr, holder.GetCString(text, 5, kCFStringEncodingMacRoman));
    const CFStringRef part = holder.CopySubstring(1, 3, kCFAllocatorDefault);
    EXPECT_EQ("irs", TextOf(part));
    CFRelease(part);

    EXPECT_EQ(second, holder.Assume(second, 0));
    EXPECT_EQ(2, CFGetRetainCount(first));
    EXPECT_EQ(1, CFGetRetainCount(second));
    CFRetain(second);
  }
  EXPECT_EQ(1, CFGetRetainCount(second));
  CFRelease(second);
  CFRelease(first);
  CFRelease(first);
}

TEST(TypeDictionary, AddKeepsAndSetReplaces) {
  VLTCFTypeDictionary dictionary;
  const StackCFString key("key"), one("one"), two("two");
  dictionary.AddValue(key, one);
  dictionary.AddValue(key, two);
  EXPECT_EQ("one", TextOf(CFDictionaryGetValue(dictionary.PreflightModify(), key)));
  dictionary.SetValue(key, two);
  EXPECT_EQ("two", TextOf(CFDictionaryGetValue(dictionary.PreflightModify(), key)));
  dictionary.Assume(nullptr, 0);
  dictionary.SetValue(key, one);
  EXPECT_EQ(nullptr, dictionary.PreflightModify());
}

// The outputs of each type for 10^300 without a default, which no caller can mistake for the value.
TEST(NumberRule, WhatDoesNotFitIsTheTopBitOrNotANumber) {
  const VLTCFFloat64 huge(1e300);
  const std::pair<CFNumberType, UInt64> rows[] = {
      {kCFNumberSInt8Type, 0x80},
      {kCFNumberSInt16Type, 0x8000},
      {kCFNumberSInt32Type, 0x80000000},
      {kCFNumberSInt64Type, 0x8000000000000000},
      // Meant: -0.0 here and not a number for `float` only, because callers rely on both.
      {kCFNumberFloat32Type, 0x80000000},
      {kCFNumberCharType, 0x80},
      {kCFNumberShortType, 0x8000},
      {kCFNumberIntType, 0x80000000},
      {kCFNumberLongType, 0x80000000},
      {kCFNumberLongLongType, 0x8000000000000000},
      {kCFNumberFloatType, 0x7FC00000},
  };
  for (const auto& [type, expectedBits] : rows) {
    SCOPED_TRACE(type);
    const UInt32 size = gCFNumberSizes[type - 1];
    UInt8 out[16];
    std::fill(std::begin(out), std::end(out), UInt8{0x55});
    EXPECT_EQ(-7, VLTCFNumber::CFNumberGetValue(huge, type, out, nullptr, -5, -7));
    UInt64 bits = 0;
    for (UInt32 i = 0; i < size; ++i) {
      const UInt32 place = std::endian::native == std::endian::big ? i : size - 1 - i;
      bits = bits << 8 | out[place];
    }
    EXPECT_EQ(expectedBits, bits);
    EXPECT_EQ(0x55, out[size]);  // not a byte more

    const UInt8 instead[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(-7, VLTCFNumber::CFNumberGetValue(huge, type, out, instead, -5, -7));
    EXPECT_EQ(0, memcmp(instead, out, size));
    EXPECT_EQ(0x55, out[size]);
  }
}

TEST(NumberRule, RefusalsTouchNothing) {
  const VLTCFSInt32 number(12);
  SInt64 out = 99;
  EXPECT_EQ(-5, VLTCFNumber::CFNumberGetValue(nullptr, 1, &out, nullptr, -5, -7));
  // The last one has a size, but is refused.
  for (const CFNumberType type : {-1, 0, 15, 14}) {
    EXPECT_EQ(paramErr, VLTCFNumber::CFNumberGetValue(number, type, &out, nullptr, -5, -7)) << type;
  }
  EXPECT_EQ(99, out);
}

TEST(Number, AccessorsRefuseWhatDoesNotFitAndTwoReadOneByteOrNothing) {
  const VLTCFSInt16 number(300);
  SInt8 small = 0;
  EXPECT_EQ(errAECoercionFail, number.AsSInt8(small, -5));
  EXPECT_EQ(-128, small);
  EXPECT_EQ(-128, number.AsSInt8());
  SInt64 wide = 0;
  EXPECT_EQ(0, number.AsSInt64(wide, -5));
  EXPECT_EQ(300, wide);
  EXPECT_EQ(300.0f, number.AsFloat32());
  EXPECT_EQ(300.0, number.AsFloat64());

  // Meant: AsSInt64 reads 8 bits into the top byte and AsCFIndex reads none, because callers rely
  // on both.
  EXPECT_EQ(INT64_MIN, number.AsSInt64());
  EXPECT_EQ(SInt64{-2} * (SInt64{1} << 56), VLTCFSInt32(-2).AsSInt64());
  EXPECT_EQ(SInt64{7} << 56, VLTCFSInt64(7).AsSInt64());
  EXPECT_EQ(0, number.AsCFIndex());

  // 16777217 is the first integer that no float carries.
  EXPECT_TRUE(std::signbit(VLTCFSInt32(16777217).AsFloat32()));
  EXPECT_EQ(0.0f, VLTCFSInt32(16777217).AsFloat32());

  const VLTCFNumber none(nullptr, kCFNumberIntType, 0, kCFAllocatorDefault);
  EXPECT_EQ(-5, none.AsSInt8(small, -5));
  EXPECT_EQ(0, none.AsSInt32());
}

TEST(Number, CastConsumesWhatItRefuses) {
  const CFStringRef string = NewString("no number");
  CFRetain(string);
  EXPECT_EQ(nullptr, VLTCFNumber::DynamicCast(string));
  EXPECT_EQ(1, CFGetRetainCount(string));
  CFRelease(string);
  const VLTCFSInt8 number(1);
  EXPECT_EQ(number.GetCFTypeRef(), VLTCFNumber::DynamicCast(number.GetCFTypeRef()));
  EXPECT_EQ(1, CFGetRetainCount(number.GetCFTypeRef()));
  EXPECT_EQ(nullptr, VLTCFNumber::DynamicCast(nullptr));
}

}  // namespace
