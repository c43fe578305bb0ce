#include "util/ostype_text.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "util/strings.h"
#include "util/text_scan.h"

namespace {

OSType CodeOf(const char* characters) {
  return FourCC(characters[0], characters[1], characters[2], characters[3]);
}

// Reads what the scan format "%8u" reads: spaces, then at most eight characters of sign and digits.
bool ScanEightDigits(const char* at, UInt32& number) {
  while (std::isspace(static_cast<unsigned char>(*at))) ++at;
  char field[9] = "";
  std::strncpy(field, at, sizeof field - 1);
  const char* start = field;
  SInt32 value = 0;
  if (!ScanSInt32(start, value)) return false;
  number = static_cast<UInt32>(value);
  return true;
}

}  // namespace

char* OSTypeToCString(OSType code, char* out, int size) {
  const char bytes[4] = {static_cast<char>(code >> 24), static_cast<char>(code >> 16),
                         static_cast<char>(code >> 8), static_cast<char>(code)};
  Str31 text;
  char* characters = reinterpret_cast<char*>(text + 1);
  constexpr size_t kRoom = sizeof text - 1;
  int length = 0;
  if (std::all_of(bytes, bytes + 4, IsPrintableASCII)) {
    length = std::snprintf(characters, kRoom, "'%.4s'", bytes);
  } else if (code <= 0x7FFF) {
    length = std::snprintf(characters, kRoom, "%" PRId32, static_cast<SInt32>(code));
  } else {
    length = std::snprintf(characters, kRoom, "0x%08" PRIx32, code);
  }
  text[0] = static_cast<unsigned char>(length);
  return pcstrcpy(out, text, size);
}

char* OSTypestrcpy(char* out, OSType code, int size) { return OSTypeToCString(code, out, size); }

char* OSTypestrcat(char* out, OSType code, int size) {
  const size_t length = std::strlen(out);
  if (size > 0 && length < static_cast<size_t>(size)) {
    OSTypeToCString(code, out + length, size - static_cast<int>(length));
  }
  return out;
}

OSErr CStringToOSType(const char* text, OSType& code) {
  if (text == nullptr) return paramErr;
  const size_t length = std::strlen(text);
  SInt32 number = 0;
  if (length == 6 && text[0] == '\'' && text[5] == '\'') {
    code = CodeOf(text + 1);
  } else if (UInt32 value = 0;
             std::strncmp(text, "0x", 2) == 0 && ScanEightDigits(text + 2, value)) {
    code = value;  // Meant: decimal in spite of the prefix, because callers rely on it.
  } else if (const char* at = text; ScanSInt32(at, number)) {
    code = static_cast<OSType>(number);
  } else if (length == 4) {
    code = CodeOf(text);
  } else {
    return paramErr;
  }
  return noErr;
}
