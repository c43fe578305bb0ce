#include "plist/stack_refs.h"

#include "util/cf_strings.h"
#include "util/ostype_text.h"

namespace {

CFStringRef CreateCodeText(OSType code) {
  char text[32];
  return CStringToCFString(OSTypeToCString(code, text, sizeof text));
}

void ReleaseLogged(CFTypeRef object, const char* where) {
  if (object == nullptr) return;
  LogRefCount(object, where, -1);
  CFRelease(object);
}

}  // namespace

void LogRefCount(const void*, const char*, int) {}

CFNumberRef NumToNumRef(CFNumberType type, const void* value) {
  return CFNumberCreate(kCFAllocatorDefault, type, value);
}

CFDataRef DataToDataRef(const UInt8* bytes, CFIndex count) {
  return CFDataCreate(kCFAllocatorDefault, bytes, count);
}

StackCFString::StackCFString(CFStringRef given) : string(given) { CFRetain(string); }
StackCFString::StackCFString(const char* text)
    : string(CStringToCFString(text)), isLost(text != nullptr && string == nullptr) {}
StackCFString::StackCFString(OSType code)
    : string(CreateCodeText(code)), isLost(string == nullptr) {}
StackCFString::~StackCFString() { ReleaseLogged(string, "~StackCFString"); }

StackCFPascalString::StackCFPascalString(ConstStr255Param text) {
  string = PStringToCFString(text);
  isLost = text != nullptr && text[0] != 0 && string == nullptr;
}

StackCFNumber::StackCFNumber(CFNumberType type, const void* value)
    : number(NumToNumRef(type, value)) {}
StackCFNumber::~StackCFNumber() { ReleaseLogged(number, "~StackCFNumber"); }

StackCFData::StackCFData(const UInt8* bytes, CFIndex count) : data(DataToDataRef(bytes, count)) {}
StackCFData::~StackCFData() { ReleaseLogged(data, "~StackCFData"); }
