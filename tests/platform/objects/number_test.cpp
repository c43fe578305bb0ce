#include "platform/host/objects/cf_number.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>

#include "tests/platform/objects/support.h"

namespace {

constexpr double kTwoTo53 = 9007199254740992.0;
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
const double kNaN = std::nan("");

OwnedRef<CFNumberRef> Integer(SInt64 value) { return HostCFNumber::CreateSInt64(value); }
OwnedRef<CFNumberRef> Unsigned(UInt64 value) { return HostCFNumber::CreateUInt64(value); }
OwnedRef<CFNumberRef> Real(double value) { return HostCFNumber::CreateFloat64(value); }

// The value in a type of the width of T.
template <class T>
struct Carried {
  T value{};  // before the result: filled by the same call
  Boolean isExact;
  Carried(CFNumberRef number, CFNumberType type)
      : isExact(CFNumberGetValue(number, type, &value)) {}
};

}  // namespace

TEST(Number, EveryTypeIsStoredAsItsCanonicalOne) {
  const std::tuple<CFNumberType, CFNumberType, CFIndex, bool> rows[] = {
      {kCFNumberSInt8Type, kCFNumberSInt8Type, 1, false},
      {kCFNumberFloat64Type, kCFNumberFloat64Type, 8, true},
      {kCFNumberCharType, kCFNumberSInt8Type, 1, false},
      {kCFNumberLongType, kCFNumberSInt32Type, 4, false},
      {kCFNumberFloatType, kCFNumberFloat32Type, 4, true},
      {kCFNumberCFIndexType, kCFNumberSInt32Type, 4, false},
  };
  for (const auto& [given, stored, size, isFloat] : rows) {
    SCOPED_TRACE(given);
    const UInt8 bytes[9] = {0, 1, 0, 1, 0, 1, 0, 1, 0};
    const OwnedRef<CFNumberRef> number(CFNumberCreate(nullptr, given, bytes + 1));
    EXPECT_EQ(stored, CFNumberGetType(number));
    EXPECT_EQ(size, CFNumberGetByteSize(number));
    EXPECT_EQ(isFloat, CFNumberIsFloatType(number));
    UInt8 out[9];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_TRUE(CFNumberGetValue(number, given, out));
    EXPECT_EQ(0, std::memcmp(bytes + 1, out, static_cast<size_t>(size)));
    EXPECT_EQ(0xEE, out[size]) << "wrote more than its size";
  }
  SInt64 value = 7;
  for (CFNumberType type : {-1, 0, 15, 1000}) {
    EXPECT_EQ(nullptr, CFNumberCreate(nullptr, type, &value));
    EXPECT_FALSE(CFNumberGetValue(Number(1), type, &value));
  }
  EXPECT_EQ(7, value);
}

TEST(Number, IntegersSaturateAndReportALoss) {
  const std::tuple<OwnedRef<CFNumberRef>, SInt8, bool, SInt64, bool> rows[] = {
      {Integer(128), 127, false, 128, true},
      {Integer(INT64_MIN), -128, false, INT64_MIN, true},
      {Unsigned(UINT64_MAX), 127, false, INT64_MAX, false},
      {Real(2.9), 2, false, 2, false},
      {Real(kTwoTo63), 127, false, INT64_MAX, false},
      {Real(-kTwoTo63), -128, false, INT64_MIN, true},
      {Real(kNaN), 0, false, 0, false},
  };
  for (const auto& [number, expected8, is8, expected64, is64] : rows) {
    SCOPED_TRACE(DescriptionOf(number));
    const Carried<SInt8> as8(number, kCFNumberCharType);
    EXPECT_EQ(expected8, as8.value);
    EXPECT_EQ(is8, as8.isExact);
    const Carried<SInt64> as64(number, kCFNumberLongLongType);
    EXPECT_EQ(expected64, as64.value);
    EXPECT_EQ(is64, as64.isExact);
  }
}

TEST(Number, RealsAreRoundedAndReportALoss) {
  const std::tuple<OwnedRef<CFNumberRef>, float, bool, double, bool> rows[] = {
      {Integer((1LL << 53) + 1), static_cast<float>(kTwoTo53), false, kTwoTo53, false},
      {Unsigned(UINT64_MAX), static_cast<float>(2 * kTwoTo63), false, 2 * kTwoTo63, false},
      {Real(0.1), 0.1f, false, 0.1, true},
      {Real(-kInfinity), -static_cast<float>(kInfinity), true, -kInfinity, true},
      {Real(DBL_MIN), 0.0f, false, DBL_MIN, true},
  };
  for (const auto& [number, expectedFloat, isFloat, expectedDouble, isDouble] : rows) {
    SCOPED_TRACE(DescriptionOf(number));
    const Carried<float> asFloat(number, kCFNumberFloatType);
    EXPECT_EQ(expectedFloat, asFloat.value);
    EXPECT_EQ(isFloat, asFloat.isExact);
    const Carried<double> asDouble(number, kCFNumberDoubleType);
    EXPECT_EQ(expectedDouble, asDouble.value);
    EXPECT_EQ(isDouble, asDouble.isExact);
  }
  const Carried<float> nan(Real(kNaN), kCFNumberFloat32Type);
  EXPECT_TRUE(nan.isExact && std::isnan(nan.value));
}

// Ascending lines of equal numbers; each is compared with every other.
TEST(Number, OrderEqualityAndHashAgreeAcrossTypes) {
  const float third = 1.0f / 3;
  const OwnedRef<CFNumberRef> lines[][2] = {
      {Real(kNaN), HostCFNumber::CreateFloat32(std::nanf(""))},
      {Real(-kInfinity), Real(-kInfinity)},
      {Integer(INT64_MIN), Real(-kTwoTo63)},
      {Number(-1), HostCFNumber::CreateFloat32(-1)},
      {Real(-0.5), Real(-0.5)},
      {Real(-0.0), Integer(0)},
      {HostCFNumber::CreateFloat32(third), Real(third)},
      {Integer(1LL << 53), Real(kTwoTo53)},
      {Integer((1LL << 53) + 1), Unsigned((1ULL << 53) + 1)},
      {Integer(INT64_MAX), Unsigned(INT64_MAX)},
      {Unsigned(1ULL << 63), Real(kTwoTo63)},
      {Unsigned(UINT64_MAX), Unsigned(UINT64_MAX)},
      {Real(2 * kTwoTo63), Real(2 * kTwoTo63)},
  };
  for (size_t i = 0; i < std::size(lines); ++i) {
    for (const auto& a : lines[i]) {
      for (size_t j = 0; j < std::size(lines); ++j) {
        for (const auto& b : lines[j]) {
          SCOPED_TRACE(DescriptionOf(a) + " and " + DescriptionOf(b));
          EXPECT_EQ((i > j) - (i < j), CFNumberCompare(a, b, nullptr));
          EXPECT_EQ(i == j, CFEqual(a, b));
          EXPECT_TRUE(i != j || CFHash(a) == CFHash(b));
        }
      }
    }
  }
}

TEST(Number, BooleansAreNotNumbers) {
  EXPECT_FALSE(CFEqual(kCFBooleanTrue, Number(1)));
  EXPECT_EQ(0, CFNumberGetType(reinterpret_cast<CFNumberRef>(kCFBooleanTrue)));
  EXPECT_FALSE(CFNumberGetValue(nullptr, kCFNumberIntType, nullptr));
  EXPECT_EQ("-12", DescriptionOf(Number(-12)));
  EXPECT_EQ("18446744073709551615", DescriptionOf(Unsigned(UINT64_MAX)));
  EXPECT_EQ("0.1", DescriptionOf(Real(0.1)));
  EXPECT_EQ("true", DescriptionOf(kCFBooleanTrue));
}
