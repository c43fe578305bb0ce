#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <map>
#include <string>

#include "plist/dictionary.h"

// One setting of a device: a value of any descriptor type except list and record, with the bytes of
// its descriptor. Plain data; one thread at a time.
struct Setting {
  DescType type = typeNull;
  std::string bytes;
};

using SettingTable = std::map<std::string, Setting>;

constexpr size_t kLargestSetting = 64 * 1024;  // bytes
constexpr size_t kMostSettings = 1000;         // of a table

// Stores settings in a property list: each is a dictionary with "type", the code in single quotes,
// and "value", a Boolean value, a number, a text or, for all other types, the bytes. LoadSettings
// also accepts the bare value, for lists that people write, and reads it as bool, long (comp,
// doub), TEXT (utf8) or tdta.
OSStatus StoreSettings(VLTDictionaryBase& list, const char* key, const SettingTable& settings);
// Adds the settings that are stored under `key` to `settings`. Ignores those that cannot be read.
void LoadSettings(VLTDictionaryBase& list, const char* key, SettingTable& settings);

// Returns a text of a dictionary in Mac Roman; "" if there is none, or if Mac Roman lacks one of
// its characters.
std::string TextOf(VLTDictionaryBase& list, const char* key);

// Texts are TEXT, in Mac Roman, if that has all their characters, else utf8. Bytes are a text in
// UTF-8; bytes that are not are TEXT as they are.
Setting TextSetting(CFStringRef text);
Setting TextSettingOfBytes(const std::string& bytes);
