#include "platform/host/objects/cf_number.h"

#include <bit>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_string.h"

namespace {

using Form = HostCFNumber::Form;

// Returns the canonical type of a documented one, or 0 for an unknown one.
CFNumberType CanonicalType(CFNumberType type) {
  constexpr UInt8 kCanonical[] = {0, 1, 2, 3, 4, 5, 6, 1, 2, 3, 3, 4, 5, 6, 3};
  static_assert(sizeof kCanonical == kCFNumberMaxType + 1);
  return type > 0 && type <= kCFNumberMaxType ? kCanonical[type] : 0;
}

// A whole number from -2^63 to 2^64 - 1; `bits` are those of the SInt64 or UInt64.
struct Whole {
  bool isNegative;
  UInt64 bits;

  bool operator==(const Whole&) const = default;
};

CFComparisonResult Order(const Whole& a, const Whole& b) {
  if (a.isNegative != b.isNegative) return b.isNegative - a.isNegative;
  return (a.bits > b.bits) - (a.bits < b.bits);  // right also for two negative ones
}

Whole WholeOf(const HostCFNumber& number) {
  if (number.IsUnsigned()) return {false, number.Unsigned()};
  return {number.Integer() < 0, static_cast<UInt64>(number.Integer())};
}

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// Stores `real` without its fraction. Returns false for NaN and beyond the range.
bool Truncate(double real, Whole* whole) {
  if (!(real >= -kTwoTo63 && real < kTwoTo64)) return false;
  if (real < 0) {
    const auto integer = static_cast<SInt64>(real);
    *whole = {integer < 0, static_cast<UInt64>(integer)};
  } else {
    *whole = {false, static_cast<UInt64>(real)};
  }
  return true;
}

// Returns the nearest real.
double Round(const Whole& whole) {
  return whole.isNegative ? static_cast<double>(static_cast<SInt64>(whole.bits))
                          : static_cast<double>(whole.bits);
}

CFComparisonResult OrderReals(double a, double b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(b) - std::isnan(a);
  return (a > b) - (a < b);
}

CFComparisonResult Order(const Whole& a, double b) {
  Whole whole;
  if (!Truncate(b, &whole)) return b > 0 ? kCFCompareLessThan : kCFCompareGreaterThan;
  if (const CFComparisonResult order = Order(a, whole); order != kCFCompareEqualTo) return order;
  return OrderReals(Round(whole), b);  // this does not round, because `whole` came from a real
}

CFComparisonResult Order(const HostCFNumber& a, const HostCFNumber& b) {
  if (a.IsFloat() && b.IsFloat()) return OrderReals(a.Real(), b.Real());
  if (a.IsFloat()) return -Order(WholeOf(b), a.Real());
  if (b.IsFloat()) return Order(WholeOf(a), b.Real());
  return Order(WholeOf(a), WholeOf(b));
}

// Stores the nearest integer within the range of T. Returns true if it is equal.
template <class T>
bool Clamp(const Whole& whole, T* integer) {
  constexpr auto kLowest = std::numeric_limits<T>::min();
  constexpr auto kHighest = std::numeric_limits<T>::max();
  *integer = whole.isNegative ? kLowest : kHighest;
  if (whole.isNegative ? static_cast<SInt64>(whole.bits) < kLowest
                       : whole.bits > static_cast<UInt64>(kHighest)) {
    return false;
  }
  *integer = static_cast<T>(whole.bits);
  return true;
}

template <class T>
bool StoreInteger(const HostCFNumber& number, void* out) {
  Whole whole{};
  T integer = 0;
  bool isExact = true;
  if (!number.IsFloat()) {
    isExact = Clamp(WholeOf(number), &integer);
  } else if (Truncate(number.Real(), &whole)) {
    isExact = Clamp(whole, &integer) && Round(whole) == number.Real();
  } else {
    isExact = false;
    if (number.Real() > 0) integer = std::numeric_limits<T>::max();
    if (number.Real() < 0) integer = std::numeric_limits<T>::min();
  }
  std::memcpy(out, &integer, sizeof integer);
  return isExact;
}

// A CPU that computes with more bits than `T` has keeps them until the value is stored.
template <class T>
T WithoutExcessBits(T real) {
  if constexpr (FLT_EVAL_METHOD == 0) return real;
  const volatile T stored = real;
  return stored;
}

template <class T>
bool StoreReal(const HostCFNumber& number, void* out) {
  const T real = WithoutExcessBits(
      number.IsFloat() ? static_cast<T>(number.Real())
                       : static_cast<T>(number.IsUnsigned() ? static_cast<T>(number.Unsigned())
                                                            : static_cast<T>(number.Integer())));
  std::memcpy(out, &real, sizeof real);
  const auto stored = static_cast<double>(real);
  if (number.IsFloat()) return OrderReals(stored, number.Real()) == kCFCompareEqualTo;
  return Order(WholeOf(number), stored) == kCFCompareEqualTo;
}

template <class T>
T Load(const void* value) {
  T loaded;
  std::memcpy(&loaded, value, sizeof loaded);
  return loaded;
}

constinit HostCFBoolean gTrue(true);
constinit HostCFBoolean gFalse(false);

}  // namespace

__CFNumber* __CFNumber::Make(Form form, Value value, HostObjectPool* pool) {
  static_assert(std::is_trivially_destructible_v<__CFNumber>);
  const HostObjectBlock block = HostObjectPool::Take(pool, sizeof(__CFNumber));
  if (block.bytes == nullptr) return nullptr;
  auto* number = new (block.bytes) __CFNumber(form, value);
  number->RememberBlock(block);
  return number;
}

__CFNumber* __CFNumber::CreateUInt64(UInt64 value, HostObjectPool* pool) {
  if (value <= static_cast<UInt64>(INT64_MAX)) {
    return CreateSInt64(static_cast<SInt64>(value), pool);
  }
  return Make(Form::kUInt64, {.unsigned64 = value}, pool);
}

__CFNumber* __CFNumber::Create(CFNumberType type, const void* value) {
  const auto form = static_cast<Form>(CanonicalType(type));
  if (value == nullptr) return nullptr;
  switch (form) {
    case Form::kSInt8:
      return Make(form, {.integer = Load<SInt8>(value)});
    case Form::kSInt16:
      return Make(form, {.integer = Load<SInt16>(value)});
    case Form::kSInt32:
      return Make(form, {.integer = Load<SInt32>(value)});
    case Form::kSInt64:
      return Make(form, {.integer = Load<SInt64>(value)});
    case Form::kFloat32:
      return Make(form, {.real32 = Load<float>(value)});
    case Form::kFloat64:
      return Make(form, {.real64 = Load<double>(value)});
    case Form::kUInt64:
      break;
  }
  return nullptr;
}

bool __CFNumber::Equal(const HostCFObject& other) const {
  return Order(*this, static_cast<const __CFNumber&>(other)) == kCFCompareEqualTo;
}

// A real that is whole hashes as the integer that it equals.
CFHashCode __CFNumber::Hash() const {
  Whole whole{};
  if (!IsFloat()) {
    whole = WholeOf(*this);
  } else if (!Truncate(Real(), &whole) || Round(whole) != Real()) {
    return std::isnan(Real()) ? 1 : HostHashWord(std::bit_cast<UInt64>(Real()));
  }
  return HostHashWord(whole.bits);
}

CFStringRef __CFNumber::CopyDescription() const {
  char text[32];
  std::to_chars_result end{};
  if (form == Form::kFloat32)
    end = std::to_chars(text, text + sizeof text, value.real32);
  else if (form == Form::kFloat64)
    end = std::to_chars(text, text + sizeof text, value.real64);
  else if (IsUnsigned())
    end = std::to_chars(text, text + sizeof text, value.unsigned64);
  else
    end = std::to_chars(text, text + sizeof text, value.integer);
  return HostCFString::CreateASCII(reinterpret_cast<const UInt8*>(text),
                                   static_cast<size_t>(end.ptr - text));
}

CFStringRef __CFBoolean::CopyDescription() const { return is ? CFSTR("true") : CFSTR("false"); }

constinit const CFBooleanRef kCFBooleanTrue = &gTrue;
constinit const CFBooleanRef kCFBooleanFalse = &gFalse;

CFTypeID CFBooleanGetTypeID(void) { return kHostTypeBoolean; }

Boolean CFBooleanGetValue(CFBooleanRef ref) {
  const auto* boolean = HostCast<HostCFBoolean>(ref);
  return boolean != nullptr && boolean->is;
}

CFTypeID CFNumberGetTypeID(void) { return kHostTypeNumber; }

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void* value) {
  return HostCFNumber::Create(type, value);
}

CFNumberType CFNumberGetType(CFNumberRef ref) {
  const auto* number = HostCast<HostCFNumber>(ref);
  if (number == nullptr) return 0;
  return number->IsUnsigned() ? kCFNumberSInt64Type
                              : static_cast<CFNumberType>(number->StoredForm());
}

CFIndex CFNumberGetByteSize(CFNumberRef ref) {
  constexpr UInt8 kSizes[] = {0, 1, 2, 4, 8, 4, 8};
  return kSizes[CFNumberGetType(ref)];
}

Boolean CFNumberIsFloatType(CFNumberRef ref) {
  const auto* number = HostCast<HostCFNumber>(ref);
  return number != nullptr && number->IsFloat();
}

Boolean CFNumberGetValue(CFNumberRef ref, CFNumberType type, void* value) {
  const auto* number = HostCast<HostCFNumber>(ref);
  if (number == nullptr || value == nullptr) return false;
  switch (CanonicalType(type)) {
    case kCFNumberSInt8Type:
      return StoreInteger<SInt8>(*number, value);
    case kCFNumberSInt16Type:
      return StoreInteger<SInt16>(*number, value);
    case kCFNumberSInt32Type:
      return StoreInteger<SInt32>(*number, value);
    case kCFNumberSInt64Type:
      return StoreInteger<SInt64>(*number, value);
    case kCFNumberFloat32Type:
      return StoreReal<float>(*number, value);
    case kCFNumberFloat64Type:
      return StoreReal<double>(*number, value);
    default:
      return false;
  }
}

CFComparisonResult CFNumberCompare(CFNumberRef a, CFNumberRef b, void*) {
  const auto* left = HostCast<HostCFNumber>(a);
  const auto* right = HostCast<HostCFNumber>(b);
  if (left == nullptr || right == nullptr) return (left != nullptr) - (right != nullptr);
  return Order(*left, *right);
}
