#include "platform/host/plist/introspect.h"

#include <charconv>
#include <new>
#include <vector>

#include "platform/host/base/leaf_text.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/plist/builder.h"
#include "platform/host/plist/codec.h"

namespace {

std::string IntegerText(const HostCFNumber& number) {
  char digits[24];
  char* const end = digits + sizeof digits;
  char* const behind = number.IsUnsigned() ? std::to_chars(digits, end, number.Unsigned()).ptr
                                           : std::to_chars(digits, end, number.Integer()).ptr;
  return std::string(digits, behind);
}

std::string DateText(const HostCFDate& date) {
  char text[kHostPlistDateSize];
  return HostFormatPlistDate(date.Time(), text) ? std::string(text, sizeof text) : "";
}

std::string DataText(const HostCFData& data) {
  std::string text((data.Length() + 2) / 3 * 4, 0);
  HostEncodeBase64(data.Bytes(), data.Length(), reinterpret_cast<UInt8*>(text.data()));
  return text;
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The functions below return what is wrong, or null when the leaf was made.

const char* AddInteger(std::string_view text, HostPlistBuilder& builder, std::string& hint) {
  bool isNegative = false;
  UInt64 magnitude = 0;
  const HostPlistParse parsed = HostParsePlistInteger(text, &isNegative, &magnitude);
  if (parsed == HostPlistParse::kOutOfRange) hint = "-9223372036854775808 to 18446744073709551615";
  if (parsed != HostPlistParse::kGood) return "this is not an integer of 64 bits";
  return builder.AddInteger(isNegative, magnitude) ? nullptr : builder.Problem();
}

const char* AddReal(std::string_view text, HostPlistBuilder& builder) {
  double value = 0;
  if (!HostParsePlistReal(text, &value)) return "this is not a real number";
  return builder.AddReal(value) ? nullptr : builder.Problem();
}

const char* AddDate(std::string_view text, HostPlistBuilder& builder, std::string& hint) {
  CFAbsoluteTime time = 0;
  const HostPlistParse parsed = HostParsePlistDate(text, &time);
  if (parsed == HostPlistParse::kMalformed) hint = "as 2005-03-01T12:34:56Z";
  if (parsed == HostPlistParse::kOutOfRange) hint = "years go from 0001 to 9999";
  if (parsed != HostPlistParse::kGood) return "this is not a date";
  return builder.AddDate(time) ? nullptr : builder.Problem();
}

const char* AddData(std::string_view text, HostPlistBuilder& builder) {
  std::vector<UInt8> bytes(text.size() / 4 * 3 + 3);
  size_t count = 0;
  const auto* const from = reinterpret_cast<const UInt8*>(text.data());
  if (HostDecodeBase64(from, text.size(), bytes.data(), &count) != nullptr) {
    return "this is not base64";
  }
  return builder.AddData(bytes.data(), count) ? nullptr : builder.Problem();
}

const char* AddLeaf(HostPlistLeaf kind, std::string_view text, HostPlistBuilder& builder,
                    std::string& hint) {
  switch (kind) {
    case HostPlistLeaf::kInteger:
      return AddInteger(Trimmed(text), builder, hint);
    case HostPlistLeaf::kReal:
      return AddReal(Trimmed(text), builder);
    case HostPlistLeaf::kDate:
      return AddDate(Trimmed(text), builder, hint);
    case HostPlistLeaf::kData:
      break;
  }
  return AddData(text, builder);
}

}  // namespace

CFPropertyListRef HostReadPropertyList(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                       CFPropertyListFormat* format, HostPropertyListError* error) {
  return HostReadPlist(bytes, count, {mutability}, format, error);
}

std::string HostPlistLeafText(CFTypeRef leaf) {
  if (const auto* date = HostCast<HostCFDate>(leaf)) return DateText(*date);
  if (const auto* data = HostCast<HostCFData>(leaf)) return DataText(*data);
  const auto* number = HostCast<HostCFNumber>(leaf);
  return number != nullptr && !number->IsFloat() ? IntegerText(*number) : "";
}

CFTypeRef HostCreatePlistLeaf(HostPlistLeaf kind, std::string_view text,
                              HostPropertyListError* error) try {
  HostPlistBuilder builder(kCFPropertyListImmutable);
  const char* const problem = AddLeaf(kind, text, builder, error->hint);
  if (problem == nullptr) return builder.TakeRoot();
  error->text = problem;
  return nullptr;
} catch (const std::bad_alloc&) {
  *error = {kHostPlistNoMemory, ""};
  return nullptr;
}
