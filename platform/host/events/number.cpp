#include "platform/host/events/number.h"

#include <bit>

#include "platform/host/base/byte_order.h"

namespace {

using Kind = HostNumber::Kind;

struct IntegerFormat {
  DescType type;
  uint8_t width;  // bytes
  bool isSigned;
  uint8_t fractionBits;  // below the binary point
};
constexpr IntegerFormat kIntegerFormats[] = {
    {typeSInt16, 2, true, 0},  {typeUInt16, 2, false, 0}, {typeSInt32, 4, true, 0},
    {typeUInt32, 4, false, 0}, {typeSInt64, 8, true, 0},  {typeUInt64, 8, false, 0},
    {typeFixed, 4, true, 16},
};

struct FloatFormat {
  DescType type;
  uint8_t width;  // bytes
  uint8_t exponentBits;
  uint8_t precision;   // bits of the significand, the leading 1 counted
  bool leadingStored;  // the leading 1 has a bit of its own
  bool bigEndian;      // on every CPU
};
constexpr FloatFormat kFloatFormats[] = {
    {typeIEEE32BitFloatingPoint, 4, 8, 24, false, false},
    {typeIEEE64BitFloatingPoint, 8, 11, 53, false, false},
    {typeExtended, 10, 15, 64, true, true},
    {type128BitFloatingPoint, 16, 15, 113, false, true},
};

template <class Format, size_t count>
const Format* FindFormat(const Format (&formats)[count], DescType type) {
  for (const Format& format : formats) {
    if (format.type == type) return &format;
  }
  return nullptr;
}

// A magnitude of 128 bits. Shift counts are not negative.
struct Wide {
  uint64_t high;
  uint64_t low;

  bool IsZero() const { return (high | low) == 0; }
  bool Bit(int index) const {
    return ((index < 64 ? low >> index : high >> (index - 64)) & 1) != 0;
  }
};

Wide ShiftLeft(Wide value, int count) {
  if (count >= 128) return {0, 0};
  if (count >= 64) return {value.low << (count - 64), 0};
  if (count == 0) return value;
  return {value.high << count | value.low >> (64 - count), value.low << count};
}

Wide ShiftRight(Wide value, int count) {
  if (count >= 128) return {0, 0};
  if (count >= 64) return {0, value.high >> (count - 64)};
  if (count == 0) return value;
  return {value.high >> count, value.high << (64 - count) | value.low >> count};
}

Wide Increment(Wide value) {
  ++value.low;
  return {value.high + (value.low == 0), value.low};
}

// Returns value / 2^count, rounded to the nearest number, halves to the even one.
Wide RoundingShiftRight(Wide value, int count) {
  if (count == 0) return value;
  if (count > 128) return {0, 0};
  const bool half = value.Bit(count - 1);
  const bool rest = !ShiftLeft(value, 129 - count).IsZero();
  const Wide shifted = ShiftRight(value, count);
  return half && (rest || shifted.Bit(0)) ? Increment(shifted) : shifted;
}

void Normalise(Wide value, int exponent, HostNumber* out) {
  if (value.IsZero()) return;
  const int shift =
      value.high != 0 ? std::countl_zero(value.high) : 64 + std::countl_zero(value.low);
  const Wide shifted = ShiftLeft(value, shift);
  out->high = shifted.high;
  out->low = shifted.low;
  out->exponent = exponent - shift;
}

// These convert bytes to a number of up to 128 bits, and back.
Wide LoadWide(const uint8_t* bytes, size_t width, bool bigEndian) {
  Wide value = {0, 0};
  for (size_t i = 0; i < width; ++i) {
    value = ShiftLeft(value, 8);
    value.low |= bytes[bigEndian ? i : width - 1 - i];
  }
  return value;
}

void StoreWide(Wide value, uint8_t* bytes, size_t width, bool bigEndian) {
  for (size_t i = 0; i < width; ++i) {
    bytes[bigEndian ? width - 1 - i : i] = static_cast<uint8_t>(value.low);
    value = ShiftRight(value, 8);
  }
}

void ReadInteger(const IntegerFormat& format, const uint8_t* bytes, HostNumber* out) {
  uint64_t value = LoadWide(bytes, format.width, kHostIsBigEndian).low;
  out->negative = format.isSigned && (value >> (format.width * 8 - 1)) != 0;
  if (out->negative) {
    const int unused = 64 - format.width * 8;
    value = (0 - (value << unused)) >> unused;
  }
  Normalise({0, value}, -int{format.fractionBits}, out);
}

bool WriteInteger(const HostNumber& number, const IntegerFormat& format, uint8_t* bytes) {
  if (number.kind != Kind::kFinite) return false;
  uint64_t magnitude = 0;
  if (number.high != 0) {
    const int exponent = number.exponent + format.fractionBits;
    if (exponent >= 0) return false;
    const Wide rounded = RoundingShiftRight({number.high, number.low}, -exponent);
    if (rounded.high != 0) return false;
    magnitude = rounded.low;
  }
  const uint64_t signBit = uint64_t{1} << (format.width * 8 - 1);
  uint64_t most = format.isSigned ? signBit - 1 : signBit - 1 + signBit;
  if (number.negative) most = format.isSigned ? signBit : 0;
  if (magnitude > most) return false;
  StoreWide({0, number.negative ? 0 - magnitude : magnitude}, bytes, format.width,
            kHostIsBigEndian);
  return true;
}

struct FloatLayout {
  explicit FloatLayout(const FloatFormat& format)
      : fractionBits(format.precision - (format.leadingStored ? 0 : 1)),
        maxField((1 << format.exponentBits) - 1),
        bias(maxField / 2) {}

  int fractionBits;  // as stored
  int maxField;      // exponent field of infinities and NaNs
  int bias;
};

void ReadFloat(const FloatFormat& format, const uint8_t* bytes, HostNumber* out) {
  const FloatLayout layout(format);
  const Wide all = LoadWide(bytes, format.width, format.bigEndian || kHostIsBigEndian);
  out->negative = all.Bit(format.width * 8 - 1);
  const int field = static_cast<int>(ShiftRight(all, layout.fractionBits).low) & layout.maxField;
  Wide fraction = ShiftRight(ShiftLeft(all, 128 - layout.fractionBits), 128 - layout.fractionBits);
  if (field == layout.maxField) {
    // A leading 1 that is stored carries no information here.
    if (format.leadingStored) fraction.low &= ~(uint64_t{1} << 63);
    out->kind = fraction.IsZero() ? Kind::kInfinite : Kind::kNaN;
    return;
  }
  if (field != 0 && !format.leadingStored) {
    const Wide leading = ShiftLeft({0, 1}, layout.fractionBits);
    fraction = {fraction.high | leading.high, fraction.low | leading.low};
  }
  Normalise(fraction, (field == 0 ? 1 : field) - layout.bias - (format.precision - 1), out);
}

// Stores the bits of a finite number, without its sign. Returns false if it is too large.
bool PackFinite(const HostNumber& number, const FloatFormat& format, Wide* bits) {
  const FloatLayout layout(format);
  *bits = {0, 0};
  if (number.high == 0) return true;
  int field = number.exponent + 127 + layout.bias;
  // Numbers too small for a leading 1 keep the smallest exponent and fewer bits.
  const int lost = 128 - format.precision + (field < 1 ? 1 - field : 0);
  const Wide significand = RoundingShiftRight({number.high, number.low}, lost);
  if (field < 1) field = significand.Bit(format.precision - 1) ? 1 : 0;
  if (significand.Bit(format.precision)) ++field;  // rounded up to the next power of two
  if (field >= layout.maxField) return false;
  const Wide exponent = ShiftLeft({0, static_cast<uint64_t>(field)}, layout.fractionBits);
  Wide fraction = significand.Bit(format.precision) ? ShiftRight(significand, 1) : significand;
  fraction = ShiftRight(ShiftLeft(fraction, 128 - layout.fractionBits), 128 - layout.fractionBits);
  *bits = {exponent.high | fraction.high, exponent.low | fraction.low};
  return true;
}

bool WriteFloat(const HostNumber& number, const FloatFormat& format, uint8_t* bytes) {
  const FloatLayout layout(format);
  Wide bits = {0, 0};
  if (number.kind == Kind::kFinite) {
    if (!PackFinite(number, format, &bits)) return false;
  } else {
    bits = ShiftLeft({0, static_cast<uint64_t>(layout.maxField)}, layout.fractionBits);
    if (format.leadingStored) bits.low |= uint64_t{1} << 63;
    if (number.kind == Kind::kNaN) {
      const Wide quiet = ShiftLeft({0, 1}, format.precision - 2);
      bits = {bits.high | quiet.high, bits.low | quiet.low};
    }
  }
  if (number.negative) {
    const Wide sign = ShiftLeft({0, 1}, format.width * 8 - 1);
    bits = {bits.high | sign.high, bits.low | sign.low};
  }
  StoreWide(bits, bytes, format.width, format.bigEndian || kHostIsBigEndian);
  return true;
}

}  // namespace

bool HostIsNumberType(DescType type) {
  return FindFormat(kIntegerFormats, type) != nullptr || FindFormat(kFloatFormats, type) != nullptr;
}

bool HostReadNumber(DescType type, const void* bytes, size_t size, HostNumber* out) {
  *out = HostNumber();
  if (const IntegerFormat* format = FindFormat(kIntegerFormats, type)) {
    if (size != format->width) return false;
    ReadInteger(*format, static_cast<const uint8_t*>(bytes), out);
    return true;
  }
  const FloatFormat* format = FindFormat(kFloatFormats, type);
  if (format == nullptr || size != format->width) return false;
  ReadFloat(*format, static_cast<const uint8_t*>(bytes), out);
  return true;
}

bool HostWriteNumber(const HostNumber& number, DescType type, uint8_t (&bytes)[kHostNumberSize],
                     size_t* size) {
  if (const IntegerFormat* format = FindFormat(kIntegerFormats, type)) {
    *size = format->width;
    return WriteInteger(number, *format, bytes);
  }
  const FloatFormat* format = FindFormat(kFloatFormats, type);
  if (format == nullptr) return false;
  *size = format->width;
  return WriteFloat(number, *format, bytes);
}
