#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "launch/launch_spec.h"

class VLTDictionary;
class VLTPreferences;

// A file reference and whether it refers to anything.
class FileSpecType {
 public:
  FileSpecType() = default;
  FileSpecType(const FSRef& file, bool isValid) : ref(file), valid(isValid) {}
  FileSpecType& operator=(const FSRef& file) {  // valid from now on
    ref = file;
    valid = true;
    return *this;
  }
  operator FSRef&() { return ref; }
  bool isValid() const { return valid; }

 protected:
  FSRef ref = {};
  bool valid = false;
};

// Asks whether a started process can be reached yet: 0 when it can, procNotFound to be asked again,
// anything else to give up.
using VLTLaunchProbe = OSStatus (*)(void* first, void* second);

// VLTLaunch finds a daemon of the package that runs, by its port name or by its signature in the
// process list, and starts it when it does not: the application at a given path, else the one with
// its bundle identifier, else the one with its signature. Then it waits for the daemon to appear.
//
// How a daemon is found and started comes from a launch specification, once. An administrator may
// override it with a dictionary in the preferences, which is read on the first look-up and never
// again. What the setters change counts from the next look-up on, but the first look-up takes port
// name and signature from the launch specification, also over ones that were set before it.
//
// procNotFound is the condition "not there" throughout: it passes from one way to the next.
//
// An object belongs to one thread at a time. A look-up that starts a daemon blocks for as long as
// opening the application takes, and then for at most launchRetries times the sleep interval.
class VLTLaunch {
 public:
  // Copies the launch specification, whose texts are borrowed for the object's life. Nothing else.
  explicit VLTLaunch(const VLTLaunchSpec& specification);
  VLTLaunch(const VLTLaunch&) = delete;
  VLTLaunch& operator=(const VLTLaunch&) = delete;

  // The slots, in their order.

  virtual ~VLTLaunch();

  // Whether the daemon runs: 0 or procNotFound; paramErr when there is no way to find it; the error
  // of reading the preferences.
  virtual OSStatus find();

  // find, and when that gives procNotFound and launching is on: launch and waitForLaunch. An
  // application that somebody else is just opening is waited for like one's own.
  virtual OSStatus findAndLaunch();

  // Lets setPreferences write, then commits. What the object holds then stands: the preferences are
  // not read any more. 0 and nothing done without a preferences domain.
  virtual OSStatus savePreferences();

  // Waits for the daemon to appear, in the way in which it is found. 0 at once without one.
  virtual OSStatus waitForLaunch();

  // Opens the application, in the first way that finds one which opens: path, bundle identifier,
  // signature. procNotFound when none does; kLSLaunchInProgressErr when it is being opened already.
  virtual OSStatus launch();

  // Where the application is: 0 and a valid `out`, or procNotFound and `out` unchanged.
  virtual OSStatus getAppFromSpecified(FileSpecType& out);
  virtual OSStatus getAppFromSignature(FileSpecType& out);
  virtual OSStatus getAppFromBundleID(FileSpecType& out);

  // The same, and open it. The first failure.
  virtual OSStatus findAndLaunchFromSpecified();
  virtual OSStatus findAndLaunchFromSignature();
  virtual OSStatus findAndLaunchFromBundleID();

  // For subclasses: writes values of their own before a save. The base has none. 0.
  virtual OSStatus setPreferences(VLTPreferences& preferences);

  // Reads the launch preferences, once in the object's life, key by key. An absent key leaves its
  // field alone. A key of the wrong type is an error on this and every later call, and what was
  // read before it stays; a dictionary of the wrong type is an error only once.
  virtual OSStatus readPreferences();

  // Derives the switches that count from the values there are. A daemon that cannot be found is not
  // waited for: launchRetries becomes 0, for good. 0.
  virtual OSStatus init();

  // Takes the launch specification's values over, once in the object's life. 0.
  virtual OSStatus initParams();

  // initParams, readPreferences, init. The first error.
  virtual OSStatus prepare();

  // The launch preferences as they are stored, and storing them. errAEDescNotFound without domain
  // or key.
  OSStatus getLaunchPrefsDict(VLTDictionary& out);
  OSStatus commitPrefs(VLTDictionary& dict);

  // The application to start before any other, behind all aliases. paramErr for null, else the File
  // Manager's error; nothing is changed then.
  OSStatus setExecutable(FSSpec* spec);
  // Copies the name; null and "" mean none. Switches finding by port name on or off, unless the
  // name is the one there is. 0.
  OSStatus setPortName(const char* name);
  OSStatus setSignature(OSType newSignature);  // the switches stay as they are; 0
  OSType getSignature() const { return signature; }
  void setLaunchIfNotRunning(bool launchIt);

  // Opens one application: 0, kLSLaunchInProgressErr, or procNotFound for every other failure.
  OSStatus launch(FileSpecType& app);
  void logPathToApp(FileSpecType& app);  // told of each application before it is opened; nothing

  // 0 when the port exists, procNotFound when it does not, paramErr for a null or empty name; other
  // codes of the kernel as they are.
  static OSStatus findPort(const char* name);
  // 0 when an application with that signature runs, else procNotFound.
  static OSStatus findPSN(OSType signature);
  // As probes: the first argument is the name, or the signature as a number.
  static OSStatus findPort(void* first, void* second);
  static OSStatus findPSN(void* first, void* second);

  // Calls the probe until it gives something else than procNotFound, `retries` times at most, but
  // at least once: sleeps after each procNotFound, also the last. Returns what the probe said last;
  // 0 without a probe when `retries` is 0; paramErr for a null probe.
  static OSStatus waitForLaunch(VLTLaunchProbe probe, void* first, void* second, int sleepSeconds,
                                int retries);
  static OSStatus waitForPort(const char* name, int sleepSeconds, int retries);
  static OSStatus waitForPSN(OSType signature, int sleepSeconds, int retries);

  // The application with this signature or bundle identifier, or procNotFound.
  static OSStatus getFileRefFromSignature(OSType signature, FSRef& out);
  static OSStatus getFileRefFromBundleID(const char* bundleID, FSRef& out);

  // A POSIX path as a reference and back. paramErr for null, empty path, no room; else the File
  // Manager's result. A failure leaves `out` as it is.
  static OSStatus PathToFileSpec(FileSpecType& out, const char* path);
  static OSStatus FileSpecToPath(FileSpecType& spec, char* buffer, UInt32 size);

  // Copies of texts by the dictionary's allocator. StrDup gives null for null and without memory;
  // StrFree clears the pointer.
  static char* StrDup(const char* text);
  static void StrFree(char*& text);

 protected:
  // One key of the launch preferences. Unless 0 is returned, `out` is as it was; 0 also for an
  // empty or overlong four-character code, which changes nothing.
  OSStatus readSpecFromDict(VLTDictionary& dict, const char* key, FileSpecType& out);
  OSStatus readStringFromDict(VLTDictionary& dict, const char* key, char*& out);
  OSStatus readOSTypeFromDict(VLTDictionary& dict, const char* key, OSType& out);

  const VLTLaunchSpec spec;
  bool paramsInitialised = false;
  bool launchIfNotFound;
  SInt32 launchRetrySleepInterval;  // seconds
  SInt32 launchRetries;
  const char* prefsDomain;  // borrowed, may be null
  const char* prefsKey;     // borrowed, may be null
  bool prefsRead = false;
  OSType signature = 0;
  char* bundleID = nullptr;  // owned, by the dictionary's allocator
  FileSpecType executable;
  char* portName = nullptr;  // owned, by the dictionary's allocator
  bool executableValid = false;

  // The ways that count now.
  bool launchBySignature = false;
  bool launchByBundleID = false;
  bool findBySignature = false;
  bool findByPortName = false;

 private:
  void MaskSwitches();
  bool HasPreferencesKey() const;
  OSStatus ReadPreferenceKeys(VLTDictionary& dict);
};
