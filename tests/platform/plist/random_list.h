#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <bit>
#include <cstdint>
#include <iterator>
#include <random>
#include <vector>

#include "platform/host/objects/cf_array.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_string.h"

// Random lists, the same for the same seed on every CPU architecture. The caller releases them.
class RandomList {
 public:
  enum class Text { kAll, kWellFormed };  // the latter: without the character 1

  RandomList(UInt32 seed, Text text) : engine(seed), text(text) {}

  CFTypeRef Value(int depth) {
    switch (Below(depth > 0 ? 9 : 7)) {
      case 0:
        return String();
      case 1:
        return HostCFNumber::CreateSInt64(static_cast<SInt64>(Bits() >> Below(64)));
      case 2:
        return HostCFNumber::CreateUInt64(UINT64_MAX - Bits() / 4);
      case 3:
        return HostCFNumber::CreateFloat64(Real());
      case 4:
        return Below(2) != 0 ? kCFBooleanTrue : kCFBooleanFalse;
      case 5:
        return Data();
      case 6: {
        constexpr SInt64 kSpan = 252423993600 + 63113904000;
        const auto seconds = static_cast<SInt64>(Below(kSpan)) - 63113904000;
        return HostCFDate::Create(static_cast<double>(seconds));
      }
      case 7:
        return Array(depth);
      default:
        return Dictionary(depth);
    }
  }

 private:
  UInt64 Below(UInt64 limit) { return engine() % limit; }
  UInt64 Bits() { return engine(); }

  HostCFString* String() {
    static constexpr UniChar kUnits[] = {'a', 'b',  '<',    '&',    '>',  '\n', '"',
                                         '9', 0xE9, 0x20AC, 0xFFFD, '\r', 1};
    const size_t choice = std::size(kUnits) - (text == Text::kAll ? 0 : 1);
    std::vector<UniChar> units;
    for (UInt64 i = Below(12); i > 0; --i) {
      if (Below(8) == 0)
        units.insert(units.end(), {0xD83D, 0xDE00});
      else
        units.push_back(kUnits[Below(choice)]);
    }
    return HostCFString::Create(HostTextView{nullptr, units.data(), units.size()});
  }
  // Any bits but those of NaN, of which XML knows one only.
  double Real() {
    const auto value = std::bit_cast<double>(Bits());
    return value == value ? value : 0.5;
  }
  HostCFData* Data() {
    std::vector<UInt8> bytes(Below(100));
    for (UInt8& byte : bytes) byte = static_cast<UInt8>(Bits());
    return HostCFData::Create(bytes.data(), bytes.size());
  }
  HostCFArray* Array(int depth) {
    std::vector<CFTypeRef> values(Below(6));
    for (CFTypeRef& value : values) value = Value(depth - 1);
    return HostCFArray::CreateTaking(values.data(), values.size(), false);
  }
  HostCFDictionary* Dictionary(int depth) {
    std::vector<HostPair> pairs(Below(20));
    for (HostPair& pair : pairs) pair = {String(), Value(depth - 1)};
    return HostCFDictionary::CreateTaking(pairs.data(), pairs.size(), false);
  }

  std::mt19937_64 engine;
  const Text text;
};
