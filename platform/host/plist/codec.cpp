#include "platform/host/plist/codec.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "platform/host/plist/binary_read.h"
#include "platform/host/plist/text_read.h"
#include "platform/host/plist/xml_read.h"

namespace {

// Returns the first characters of a text file after the byte-order mark and white space, with '?'
// for each character that is not ASCII.
std::string FirstCharacters(const UInt8* bytes, size_t count) {
  constexpr size_t kEnough = 16;
  const bool isBig = count >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF;
  const bool isLittle = count >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
  const bool hasMark = count >= 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0;
  const size_t step = isBig || isLittle ? 2 : 1;
  std::string text;
  for (size_t at = hasMark ? 3 : step == 2 ? 2 : 0; at + step <= count; at += step) {
    const UInt8 low = bytes[isBig ? at + 1 : at];
    const UInt8 high = step == 1 ? UInt8{0} : bytes[isBig ? at : at + 1];
    const bool isBlank = high == 0 && (low == ' ' || (low >= '\t' && low <= '\r'));
    if (text.empty() && isBlank) continue;
    text += high == 0 && low < 0x80 ? static_cast<char>(low) : '?';
    if (text.size() == kEnough) break;
  }
  return text;
}

}  // namespace

CFPropertyListFormat HostRecognisePlist(const UInt8* bytes, size_t count) {
  constexpr std::string_view kMagic = "bplist";
  if (count >= kMagic.size() && std::memcmp(bytes, kMagic.data(), kMagic.size()) == 0) {
    return kCFPropertyListBinaryFormat_v1_0;
  }
  // The usual beginnings of files need no closer look.
  if (count > 1 && bytes[0] == '<' && (bytes[1] == '?' || bytes[1] == '!')) {
    return kCFPropertyListXMLFormat_v1_0;
  }
  const std::string text = FirstCharacters(bytes, count);
  if (text.empty() || text[0] != '<') return kCFPropertyListOpenStepFormat;
  // The name of every element has a letter that is not a hexadecimal digit.
  const size_t end = text.find_first_not_of("0123456789abcdefABCDEF", 1);
  const char stop = end == std::string::npos ? '>' : text[end];
  const bool isWord = (stop >= 'a' && stop <= 'z') || (stop >= 'A' && stop <= 'Z') || stop == '/';
  const bool isData = end == 1 ? std::strchr("> \t\r\n", stop) != nullptr : !isWord;
  return isData ? kCFPropertyListOpenStepFormat : kCFPropertyListXMLFormat_v1_0;
}

CFPropertyListRef HostReadPlist(const UInt8* bytes, size_t count, const HostPlistRequest& request,
                                CFPropertyListFormat* format, HostPropertyListError* error) {
  try {
    *format = HostRecognisePlist(bytes, count);
    switch (*format) {
      case kCFPropertyListBinaryFormat_v1_0:
        return HostReadPlistBinary(bytes, count, request, error);
      case kCFPropertyListXMLFormat_v1_0:
        return HostReadPlistXML(bytes, count, request, error);
      default:
        return HostReadPlistText(bytes, count, request, error);
    }
  } catch (const std::bad_alloc&) {  // of the readers' own lists
    *error = {kHostPlistNoMemory, ""};
    return nullptr;
  }
}
