#include "tools/plist/losses.h"

#include <cmath>
#include <cstdint>

#include "tools/plist/date_text.h"
#include "tools/plist/file.h"
#include "tools/plist/leaf.h"
#include "tools/plist/walk.h"

namespace {

struct Counts {
  size_t fractions = 0;
  size_t dates = 0;
  size_t data = 0;
  size_t numbers = 0;  // that JSON shows as strings
};

bool IsStringInJson(CFNumberRef number) {
  constexpr SInt64 kMax = (SInt64{1} << 53) - 1;
  if (CFNumberIsFloatType(number)) {
    double value = 0;
    CFNumberGetValue(number, kCFNumberDoubleType, &value);
    return !std::isfinite(value);
  }
  SInt64 value = 0;
  return !CFNumberGetValue(number, kCFNumberSInt64Type, &value) || value > kMax || value < -kMax;
}

Counts CountOf(CFTypeRef list) {
  Counts counts;
  PlistStep step;
  for (PlistWalk walk(list); walk.Next(step);) {
    if (step.what != PlistStep::kLeaf) continue;
    switch (KindOf(step.object)) {
      case PlistKind::kDate:
        ++counts.dates;
        if (HasFraction(static_cast<CFDateRef>(step.object))) ++counts.fractions;
        break;
      case PlistKind::kData:
        ++counts.data;
        break;
      case PlistKind::kInteger:
      case PlistKind::kReal:
        if (IsStringInJson(static_cast<CFNumberRef>(step.object))) ++counts.numbers;
        break;
      default:
        break;
    }
  }
  return counts;
}

std::string Several(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string JsonLoss(const Counts& counts) {
  std::string kinds;
  const auto add = [&](size_t count, const char* what) {
    if (count > 0) kinds += (kinds.empty() ? "" : ", ") + Several(count, what);
  };
  add(counts.dates, "date");
  add(counts.data, "data value");
  add(counts.numbers, "number");
  return kinds.empty() ? "" : "JSON has no such values, they are strings in it: " + kinds;
}

}  // namespace

std::string PlistLoss(CFTypeRef list, CFPropertyListFormat format) {
  if (format == kCFPropertyListBinaryFormat_v1_0) return "";
  const Counts counts = CountOf(list);
  if (format == kJsonFormat) return JsonLoss(counts);
  if (counts.fractions > 0) {
    return "XML has no fractions of seconds (" + Several(counts.fractions, "date") + ")";
  }
  if (CFPropertyListIsValid(list, format) ||
      !CFPropertyListIsValid(list, kCFPropertyListBinaryFormat_v1_0)) {
    return "";
  }
  return "XML cannot hold some of the texts (NUL, half of a surrogate pair)";
}
