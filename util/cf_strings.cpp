#include "util/cf_strings.h"

CFStringRef CStringToCFString(const char* text) {
  if (text == nullptr) return nullptr;
  return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingMacRoman);
}

CFStringRef PStringToCFString(ConstStr255Param text) {
  if (text == nullptr || text[0] == 0) return nullptr;
  return CFStringCreateWithPascalString(kCFAllocatorDefault, text, kCFStringEncodingMacRoman);
}
