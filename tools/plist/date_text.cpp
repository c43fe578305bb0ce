#include "tools/plist/date_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <new>

#include "platform/host/plist/introspect.h"
#include "tools/command_line.h"
#include "tools/plist/leaf.h"

// A time is a number of seconds, before 2001 a negative one. Its shortest decimal digits are split
// at the point into whole seconds, which count upwards to the time, and a fraction of one. All is
// done with the digits, because arithmetic would round.

namespace {

constexpr size_t kMaxDigits = 400;  // the smallest double has 324 after the point

// The digits of 1 minus the fraction with these digits; the last one is not 0.
std::string Complement(std::string digits) {
  for (char& digit : digits) digit = static_cast<char>('0' + '9' - digit);
  ++digits.back();  // from at most 8
  return digits;
}

}  // namespace

bool HasFraction(CFDateRef date) {
  const CFAbsoluteTime time = CFDateGetAbsoluteTime(date);
  return std::floor(time) != time;
}

std::string DateText(CFDateRef date) {
  std::string text = HostPlistLeafText(date);
  if (text.empty() || !HasFraction(date)) return text;
  const CFAbsoluteTime time = CFDateGetAbsoluteTime(date);
  char digits[kMaxDigits + 32];
  const auto end =
      std::to_chars(digits, digits + sizeof digits, std::fabs(time), std::chars_format::fixed);
  std::string fraction(std::find(digits, end.ptr, '.') + 1, end.ptr);
  if (time < 0) fraction = Complement(std::move(fraction));
  return text.insert(text.size() - 1, "." + fraction);
}

CFDateRef CreateDate(std::string_view text, std::string& problem) {
  std::string whole(text), fraction;
  const size_t point = text.find('.');
  if (point != text.npos && text.ends_with('Z')) {
    fraction = text.substr(point + 1, text.size() - point - 2);
    whole = std::string(text.substr(0, point)) + "Z";
  }
  const bool isNumber = std::ranges::all_of(fraction, [](char c) { return c >= '0' && c <= '9'; });
  const bool isFine = point == text.npos || (!fraction.empty() && isNumber);
  HostPropertyListError error;
  const OwnedRef<CFTypeRef> date(isFine && fraction.size() <= kMaxDigits
                                     ? HostCreatePlistLeaf(HostPlistLeaf::kDate, whole, &error)
                                     : nullptr);
  if (date == nullptr) {
    if (error.text == kHostPlistNoMemory) throw std::bad_alloc();
    problem = Quoted(text) + " is not a date (" +
              (error.hint.empty() ? "as 2005-03-01T12:34:56Z" : error.hint) + ")";
    return nullptr;
  }
  const auto* known = static_cast<CFDateRef>(static_cast<CFTypeRef>(date));
  fraction.erase(fraction.find_last_not_of('0') + 1);
  if (fraction.empty()) return static_cast<CFDateRef>(CFRetain(known));
  const double seconds = CFDateGetAbsoluteTime(known);
  std::string number = std::to_string(static_cast<long long>(seconds)) + "." + fraction;
  if (seconds < 0) {
    number = "-" + std::to_string(static_cast<long long>(-seconds) - 1) + "." +
             Complement(std::move(fraction));
  }
  CFAbsoluteTime time = 0;
  std::from_chars(number.data(), number.data() + number.size(), time);
  return Made(CFDateCreate(kCFAllocatorDefault, time));
}
