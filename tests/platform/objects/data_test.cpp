#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/platform/objects/support.h"

TEST(Data, CopiesOrKeepsItsBytes) {
  UInt8 bytes[] = {1, 2, 3};
  const OwnedRef<CFDataRef> copy(CFDataCreate(nullptr, bytes, 3));
  const OwnedRef<CFDataRef> kept(CFDataCreateWithBytesNoCopy(nullptr, bytes, 3, kCFAllocatorNull));
  EXPECT_EQ(bytes, CFDataGetBytePtr(kept));
  EXPECT_TRUE(CFEqual(copy, kept));
  EXPECT_EQ(CFHash(copy), CFHash(kept));
  bytes[2] = 4;
  EXPECT_FALSE(CFEqual(copy, kept));
  EXPECT_EQ(3, CFDataGetBytePtr(copy)[2]);
  EXPECT_EQ("<010203> (3 bytes)", DescriptionOf(copy));

  // Freed with the object, as the leak checker sees.
  for (CFAllocatorRef allocator : {kCFAllocatorDefault, kCFAllocatorMalloc}) {
    auto* block = static_cast<UInt8*>(CFAllocatorAllocate(allocator, 5, 0));
    std::memset(block, 5, 5);
    OwnedRef<CFDataRef>(CFDataCreateWithBytesNoCopy(nullptr, block, 5, allocator));
  }
  EXPECT_EQ(nullptr, CFAllocatorAllocate(kCFAllocatorNull, 5, 0));
}

TEST(Data, NegativeAndMissingBytesAreRefusedAndEmptyOnesAreEqual) {
  UInt8 bytes[] = {1, 2, 3};
  const OwnedRef<CFDataRef> data(CFDataCreate(nullptr, bytes, 3));
  const OwnedRef<CFDataRef> empty(CFDataCreateWithBytesNoCopy(nullptr, nullptr, 0, nullptr));
  EXPECT_NE(nullptr, CFDataGetBytePtr(empty));
  EXPECT_TRUE(CFEqual(empty, OwnedRef<CFDataRef>(CFDataCreate(nullptr, nullptr, 0))));
  EXPECT_EQ(nullptr, CFDataCreate(nullptr, bytes, -1));
  EXPECT_EQ(nullptr, CFDataCreate(nullptr, nullptr, 1));
  UInt8 out[4] = {9, 9, 9, 9};
  for (const CFRange outside : {CFRange{0, 4}, {-1, 1}, {1, INT32_MAX}, {1, -1}}) {
    CFDataGetBytes(data, outside, out);
    EXPECT_EQ(9, out[0]) << outside.location << "+" << outside.length;
  }
}

TEST(Date, ComparesByTime) {
  auto date = [](CFAbsoluteTime time) { return OwnedRef<CFDateRef>(CFDateCreate(nullptr, time)); };
  EXPECT_TRUE(CFEqual(date(0.0), date(-0.0)));
  EXPECT_EQ(CFHash(date(0.0)), CFHash(date(-0.0)));
  EXPECT_TRUE(CFEqual(date(NAN), date(NAN)));
  EXPECT_EQ(kCFCompareLessThan, CFDateCompare(date(1), date(2), nullptr));
  EXPECT_EQ(kCFCompareGreaterThan, CFDateCompare(date(1), nullptr, nullptr));
  EXPECT_EQ("2001-01-01T00:00:00Z", DescriptionOf(date(0)));
  EXPECT_EQ("<CFDate nan>", DescriptionOf(date(NAN)));
}
