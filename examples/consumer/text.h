#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

// Texts as UTF-8 parameters. (PutAECString and GetAECString put and get Mac Roman.)

inline OSStatus PutText(AEDesc* event, AEKeyword key, const std::string& text) {
  return AEPutParamPtr(event, key, typeUTF8Text, text.data(), static_cast<Size>(text.size()));
}

// At most 255 bytes; a longer text is an error.
inline OSStatus GetText(const AEDesc* event, AEKeyword key, std::string& text) {
  char bytes[255];
  Size size = 0;
  const OSStatus err =
      AEGetParamPtr(event, key, typeUTF8Text, nullptr, bytes, Size{sizeof bytes}, &size);
  if (err != 0) return err;
  if (size > Size{sizeof bytes}) return paramErr;
  text.assign(bytes, static_cast<size_t>(size));
  return 0;
}
