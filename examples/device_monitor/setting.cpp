#include "examples/device_monitor/setting.h"

#include <CoreFoundation/CoreFoundation.h>

#include <vector>

#include "util/ostype_text.h"
#include "util/owned_ref.h"

namespace {

constexpr DescType kTypeBytes = FourCC('t', 'd', 't', 'a');
constexpr int kCodeTextSize = 16;

template <class T>
Setting SettingOf(DescType type, const T& value) {
  return {type, std::string(reinterpret_cast<const char*>(&value), sizeof value)};
}

Size ByteCount(const Setting& setting) { return static_cast<Size>(setting.bytes.size()); }

// Returns false if the value cannot be converted to the type.
bool Coerce(const Setting& setting, DescType type, Setting& out) {
  AEDesc desc = {typeNull, nullptr};
  if (AECoercePtr(setting.type, setting.bytes.data(), ByteCount(setting), type, &desc) != 0) {
    return false;
  }
  out.type = type;
  out.bytes.resize(static_cast<size_t>(AEGetDescDataSize(&desc)));
  const OSErr err = AEGetDescData(&desc, out.bytes.data(), ByteCount(out));
  AEDisposeDesc(&desc);
  return err == 0;
}

template <class T>
bool ReadAs(const Setting& setting, DescType type, T& value) {
  Setting coerced;
  if (!Coerce(setting, type, coerced) || coerced.bytes.size() != sizeof value) return false;
  coerced.bytes.copy(reinterpret_cast<char*>(&value), sizeof value);
  return true;
}

// Returns null for a text that a property list cannot hold.
OwnedRef<CFStringRef> StringOf(const Setting& setting) {
  if (setting.bytes.find('\0') != std::string::npos) return OwnedRef<CFStringRef>(nullptr);
  const CFStringEncoding encoding =
      setting.type == typeChar ? kCFStringEncodingMacRoman : kCFStringEncodingUTF8;
  return OwnedRef<CFStringRef>(CFStringCreateWithBytes(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(setting.bytes.data()), ByteCount(setting),
      encoding, false));
}

// Stores the whole text in an encoding. Returns false if that lacks one of its characters.
bool Encode(CFStringRef text, CFStringEncoding encoding, std::string& bytes) {
  const CFRange whole = {0, CFStringGetLength(text)};
  CFIndex size = 0;
  CFStringGetBytes(text, whole, encoding, 0, false, nullptr, 0, &size);
  bytes.resize(static_cast<size_t>(size));
  return CFStringGetBytes(text, whole, encoding, 0, false, reinterpret_cast<UInt8*>(bytes.data()),
                          size, &size) == whole.length;
}

OSStatus StoreValue(VLTDictionaryBase& entry, const Setting& setting) {
  bool isTrue = false;
  SInt64 integer = 0;
  double real = 0;
  switch (setting.type) {
    case typeBoolean:
      if (ReadAs(setting, typeBoolean, isTrue)) return entry.setBoolean("value", isTrue);
      break;
    case typeSInt16:
    case typeSInt32:
    case typeSInt64:
      if (ReadAs(setting, typeSInt64, integer)) return entry.setLongLong("value", integer);
      break;
    case typeIEEE32BitFloatingPoint:
    case typeIEEE64BitFloatingPoint:
      if (ReadAs(setting, typeIEEE64BitFloatingPoint, real)) return entry.setDouble("value", real);
      break;
    case typeChar:
    case typeUTF8Text:
      if (const OwnedRef<CFStringRef> text = StringOf(setting)) {
        return entry.setString("value", text);
      }
      break;
  }
  return entry.setData("value", reinterpret_cast<const unsigned char*>(setting.bytes.data()),
                       static_cast<UInt32>(setting.bytes.size()));
}

// Reads the value under `key` as the descriptor type that fits its class in the property list.
bool LoadNatural(VLTDictionaryBase& list, const char* key, Setting& out) {
  UInt32 typeID = 0;
  if (list.getType(key, typeID, nullptr) != 0) return false;
  if (typeID == CFBooleanGetTypeID()) {
    bool isTrue = false;
    list.getBoolean(key, isTrue);
    out = SettingOf(typeBoolean, isTrue);
  } else if (typeID == CFNumberGetTypeID()) {
    SInt32 integer = 0;
    SInt64 wide = 0;
    double real = 0;
    if (list.getLong(key, integer) == 0) {
      out = SettingOf(typeSInt32, integer);
    } else if (list.getLongLong(key, wide) == 0) {
      out = SettingOf(typeSInt64, wide);
    } else {
      list.getDouble(key, real);
      out = SettingOf(typeIEEE64BitFloatingPoint, real);
    }
  } else if (typeID == CFStringGetTypeID()) {
    CFStringRef text = nullptr;
    if (list.getString(key, text) != 0) return false;
    out = TextSetting(text);
  } else if (typeID == CFDataGetTypeID()) {
    UInt32 size = 0;
    list.getData(key, nullptr, 0, size);
    out = {kTypeBytes, std::string(size, '\0')};
    list.getData(key, out.bytes.data(), size, size);
  } else {
    return false;
  }
  return true;
}

bool LoadSetting(VLTDictionaryBase& list, const char* key, Setting& out) {
  VLTDictionary entry;
  if (list.getDictionary(key, entry) != 0) return LoadNatural(list, key, out);
  OSType type = 0;
  Setting natural;
  if (CStringToOSType(TextOf(entry, "type").c_str(), type) != 0) return false;
  if (!LoadNatural(entry, "value", natural)) return false;
  if (natural.type != kTypeBytes) return Coerce(natural, type, out);
  out = {type, natural.bytes};
  return true;
}

}  // namespace

Setting TextSetting(CFStringRef text) {
  Setting setting = {typeChar, ""};
  if (!Encode(text, kCFStringEncodingMacRoman, setting.bytes)) {
    setting.type = typeUTF8Text;
    Encode(text, kCFStringEncodingUTF8, setting.bytes);
  }
  return setting;
}

Setting TextSettingOfBytes(const std::string& bytes) {
  const OwnedRef<CFStringRef> text = StringOf({typeUTF8Text, bytes});
  return text != nullptr ? TextSetting(text) : Setting{typeChar, bytes};
}

std::string TextOf(VLTDictionaryBase& list, const char* key) {
  CFStringRef text = nullptr;
  if (list.getString(key, text) != 0) return "";
  const Setting setting = TextSetting(text);
  return setting.type == typeChar ? setting.bytes : "";
}

OSStatus StoreSettings(VLTDictionaryBase& list, const char* key, const SettingTable& settings) {
  VLTDictionary table;
  OSStatus err = 0;
  for (const auto& [name, setting] : settings) {
    char type[kCodeTextSize];
    VLTDictionary entry;
    if (err == 0) err = entry.setCString("type", OSTypeToCString(setting.type, type, sizeof type));
    if (err == 0) err = StoreValue(entry, setting);
    if (err == 0) err = table.setDictionary(name.c_str(), entry);
  }
  return err == 0 ? list.setDictionary(key, table) : err;
}

void LoadSettings(VLTDictionaryBase& list, const char* key, SettingTable& settings) {
  VLTDictionary table;
  if (list.getDictionary(key, table) != 0) return;
  const auto dictionary = static_cast<CFDictionaryRef>(static_cast<const void*>(table));
  std::vector<const void*> keys(static_cast<size_t>(table.getCount()));
  CFDictionaryGetKeysAndValues(dictionary, keys.data(), nullptr);
  for (const void* each : keys) {
    char name[256];
    Setting setting;
    if (settings.size() < kMostSettings &&
        CFStringGetCString(static_cast<CFStringRef>(each), name, sizeof name,
                           kCFStringEncodingMacRoman) &&
        LoadSetting(table, name, setting) && setting.bytes.size() <= kLargestSetting) {
      settings[name] = setting;
    }
  }
}
