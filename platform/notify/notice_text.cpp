#include "platform/notify/notice_text.h"

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>

namespace {

constexpr size_t kRoomForEach = 3;  // bytes of UTF-8 for one of Mac Roman
constexpr size_t kLongest = 255;

unsigned char Printable(unsigned char byte) {
  if (byte == '\r' || byte == '\n') return '\n';
  return byte < 0x20 || byte == 0x7F ? ' ' : byte;
}

}  // namespace

std::string NoticeText(const unsigned char* bytes, size_t length) {
  unsigned char printable[kLongest];
  length = std::min(length, kLongest);
  std::transform(bytes, bytes + length, printable, Printable);
  CFStringRef string =
      CFStringCreateWithBytes(kCFAllocatorDefault, printable, static_cast<CFIndex>(length),
                              kCFStringEncodingMacRoman, false);
  char text[kLongest * kRoomForEach + 1] = "";
  CFStringGetCString(string, text, sizeof text, kCFStringEncodingUTF8);
  if (string != nullptr) CFRelease(string);
  return text;
}

std::string EscapedNoticeText(const std::string& text) {
  std::string escaped;
  for (const char letter : text) {
    switch (letter) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += letter;
    }
  }
  return escaped;
}

std::string NoticeAppName(const char* name) {
  CFStringRef string = CFStringCreateWithCString(kCFAllocatorDefault, name, kCFStringEncodingUTF8);
  if (string == nullptr) return "Program";
  CFRelease(string);
  return name;
}
