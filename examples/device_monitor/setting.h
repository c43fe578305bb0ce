#pragma once

#include <CoreServices/CoreServices.h>

#include <map>
#include <string>

#include "plist/dictionary.h"

// One setting of a device: a value of any descriptor type but a list or record, as its descriptor
// holds it. Plain data, one thread at a time.
struct Setting {
  DescType type = typeNull;
  std::string bytes;
};

using SettingTable = std::map<std::string, Setting>;

constexpr size_t kLargestSetting = 64 * 1024;  // bytes
constexpr size_t kMostSettings = 1000;         // of a table

// Settings in a property list: each a dictionary with "type", the code in single quotes, and
// "value", a truth, a number, a text or, for all other types, the bytes. In lists that people write
// the bare value will do: it is taken as bool, long (comp, doub), TEXT or tdta.
OSStatus StoreSettings(VLTDictionaryBase& list, const char* key, const SettingTable& settings);
// Adds to `settings` what is stored under `key`. What cannot be read is passed over.
void LoadSettings(VLTDictionaryBase& list, const char* key, SettingTable& settings);

// A text of a dictionary, or "".
std::string TextOf(VLTDictionaryBase& list, const char* key);
Setting TextSetting(const std::string& text);
