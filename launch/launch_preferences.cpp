#include <cstring>

#include <CoreFoundation/CoreFoundation.h>

#include "launch/launch.h"
#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "util/ostype_text.h"

// The launch preferences are a dictionary in the preferences of any user on the current host. With
// it an administrator decides how a daemon is found and started.

namespace {

// The preferences that contain the launch preferences.
class LaunchPreferences : public VLTPreferences {
 public:
  explicit LaunchPreferences(const char* domain)
      : VLTPreferences(domain, kCFPreferencesAnyUser, kCFPreferencesCurrentHost) {}
};

// Frees the old text of a field in the end, if a new one has replaced it.
class ReplacedText {
 public:
  explicit ReplacedText(char*& field) : current(field), before(field) {}
  ReplacedText(const ReplacedText&) = delete;
  ReplacedText& operator=(const ReplacedText&) = delete;
  ~ReplacedText() {
    if (current != before) VLTLaunch::StrFree(before);
  }

 private:
  char*& current;
  char* before;
};

// Whether `text` is the whole string of a key. Reading cuts it before a character that Mac Roman
// lacks and at the end of the buffer.
bool IsWhole(VLTDictionary& dict, const char* key, const char* text) {
  UInt32 characters = 0;
  return dict.getCString(key, nullptr, 0, characters) == 0 && characters == std::strlen(text);
}

// A missing key is not a failure.
OSStatus Optional(OSStatus err) { return err == errAEDescNotFound ? 0 : err; }

}  // namespace

bool VLTLaunch::HasPreferencesKey() const {
  return prefsDomain != nullptr && prefsDomain[0] != 0 && prefsKey != nullptr && prefsKey[0] != 0;
}

OSStatus VLTLaunch::getLaunchPrefsDict(VLTDictionary& out) {
  if (!HasPreferencesKey()) return errAEDescNotFound;
  LaunchPreferences preferences(prefsDomain);
  return preferences.getDictionary(prefsKey, out);
}

OSStatus VLTLaunch::commitPrefs(VLTDictionary& dict) {
  if (!HasPreferencesKey()) return errAEDescNotFound;
  LaunchPreferences preferences(prefsDomain);
  OSStatus err = preferences.setDictionary(prefsKey, dict);
  if (err == 0) err = preferences.commit();
  return err;
}

OSStatus VLTLaunch::setPreferences(VLTPreferences&) { return 0; }

OSStatus VLTLaunch::savePreferences() {
  if (prefsDomain == nullptr || prefsDomain[0] == 0) return 0;
  LaunchPreferences preferences(prefsDomain);
  OSStatus err = setPreferences(preferences);
  if (err == 0) err = preferences.commit();
  if (err == 0) prefsRead = true;
  return err;
}

OSStatus VLTLaunch::readPreferences() {
  if (prefsRead || !HasPreferencesKey()) return 0;
  const ReplacedText oldBundleID(bundleID);
  const ReplacedText oldPortName(portName);
  VLTDictionary dict;
  OSStatus err = getLaunchPrefsDict(dict);
  if (err != 0) {
    prefsRead =
        true;  // Meant: an unreadable dictionary is an error only once, so that later requests work
    return Optional(err);
  }
  err = ReadPreferenceKeys(dict);
  if (err == 0) prefsRead = true;
  return err;
}

OSStatus VLTLaunch::ReadPreferenceKeys(VLTDictionary& dict) {
  OSStatus err = Optional(dict.getBoolean("launchIfNotFound", launchIfNotFound));
  if (err == 0) err = Optional(dict.getLong("launchRetries", launchRetries));
  if (err == 0) err = Optional(dict.getLong("launchRetrySleepInterval", launchRetrySleepInterval));
  if (err == 0) err = Optional(readOSTypeFromDict(dict, "signature", signature));
  if (err == 0) err = Optional(dict.getBoolean("launchBySignature", launchBySignature));
  // Meant: errors of these two keys never end the reading, so that a wrong path leaves the others.
  if (err == 0 && readStringFromDict(dict, "bundleID", bundleID) == 0) launchByBundleID = true;
  if (err == 0 && readSpecFromDict(dict, "executablePath", executable) == 0) {
    executableValid = executable.isValid();
  }
  if (err == 0) err = Optional(readStringFromDict(dict, "portName", portName));
  if (err == 0) err = Optional(dict.getBoolean("findByPortName", findByPortName));
  if (err == 0) err = Optional(dict.getBoolean("findBySignature", findBySignature));
  return err;
}

OSStatus VLTLaunch::readStringFromDict(VLTDictionary& dict, const char* key, char*& out) {
  char* text = nullptr;
  const OSStatus err = dict.getCStringAlloc(key, text, nullptr);
  if (err != 0 || text == nullptr || text[0] == 0 || !IsWhole(dict, key, text)) {
    StrFree(text);
    return errAEDescNotFound;
  }
  out = text;
  return 0;
}

OSStatus VLTLaunch::readSpecFromDict(VLTDictionary& dict, const char* key, FileSpecType& out) {
  char* path = nullptr;
  OSStatus err = dict.getCStringAlloc(key, path, nullptr);
  if (err != 0) return err;
  FSRef ref;
  // A cut path would lead to another program.
  err = IsWhole(dict, key, path) ? 0 : errAEDescNotFound;
  if (err == 0) err = FSPathMakeRef(reinterpret_cast<const UInt8*>(path), &ref, nullptr);
  StrFree(path);
  if (err != 0) return errAEDescNotFound;
  out = ref;
  return 0;
}

OSStatus VLTLaunch::readOSTypeFromDict(VLTDictionary& dict, const char* key, OSType& out) {
  char text[256] = "";
  UInt32 length = 0;
  const OSStatus err = dict.getCString(key, text, sizeof text, length);
  // A text that is cut counts as empty.
  if (err != 0 || length == 0 || !IsWhole(dict, key, text)) return err;
  return CStringToOSType(text, out) == 0 ? 0 : errAEDescNotFound;
}
