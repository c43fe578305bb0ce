#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "launch/launch_spec.h"

class VLTDictionary;
class VLTPreferences;

// A file reference and whether it has been set. One thread at a time.
class FileSpecType {
 public:
  FileSpecType() = default;
  FileSpecType(const FSRef& file, bool isValid) : ref(file), valid(isValid) {}
  FileSpecType& operator=(const FSRef& file) {  // makes it valid
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

// Checks whether a started process can be reached. Returns 0 if so, procNotFound to be called
// again, or any other status to end the wait with it.
using VLTLaunchProbe = OSStatus (*)(void* first, void* second);

// VLTLaunch finds a daemon of the package by its port name, or by its signature in the process
// list. If the daemon does not run, VLTLaunch starts it: the application at a given path, else the
// one with its bundle identifier, else the one with its signature. Then it waits until the daemon
// is found.
//
// A launch specification says how the daemon is found and started. An administrator may override it
// with the launch preferences, which are read on the first look-up and never again. Values that the
// setters change are used from the next look-up on. Meant: the first look-up takes port name and
// signature from the launch specification and so overwrites values that were set before it, because
// callers rely on that order.
//
// procNotFound always means that something was not found; the next way is tried then.
//
// An object belongs to one thread at a time. A look-up that starts a daemon blocks until the
// application is opened, and then for at most launchRetries times the sleep interval.
class VLTLaunch {
 public:
  // Copies the launch specification. Its texts are borrowed and must outlive the object.
  explicit VLTLaunch(const VLTLaunchSpec& specification);
  VLTLaunch(const VLTLaunch&) = delete;
  VLTLaunch& operator=(const VLTLaunch&) = delete;

  // The virtual functions, in the order of their slots.

  virtual ~VLTLaunch();

  // Returns 0 if the daemon runs and procNotFound if not. Returns paramErr if no way of finding it
  // is on, or the error of reading the launch preferences.
  virtual OSStatus find();

  // Calls find. If that returns procNotFound and launching is on, calls launch and waitForLaunch.
  // An application that another process is opening is waited for in the same way.
  virtual OSStatus findAndLaunch();

  // Calls setPreferences and commits the preferences. After a success the object keeps its values
  // and never reads the launch preferences. Without a preferences domain does nothing and returns
  // 0.
  virtual OSStatus savePreferences();

  // Waits until the daemon is found, by port name or else by signature. Returns 0 at once if
  // neither way is on.
  virtual OSStatus waitForLaunch();

  // Opens the application by its path, else by its bundle identifier, else by its signature.
  // Returns procNotFound if none of these opens one, and kLSLaunchInProgressErr if another process
  // is opening it.
  virtual OSStatus launch();

  // Find the application. Return 0 and a valid `out`, or procNotFound and leave `out` unchanged.
  virtual OSStatus getAppFromSpecified(FileSpecType& out);
  virtual OSStatus getAppFromSignature(FileSpecType& out);
  virtual OSStatus getAppFromBundleID(FileSpecType& out);

  // Find the application and open it. Return the first error.
  virtual OSStatus findAndLaunchFromSpecified();
  virtual OSStatus findAndLaunchFromSignature();
  virtual OSStatus findAndLaunchFromBundleID();

  // Subclasses write their own values here before a save. The base writes nothing and returns 0.
  virtual OSStatus setPreferences(VLTPreferences& preferences);

  // Reads the launch preferences key by key, once in the object's life. A missing key leaves its
  // field unchanged. A value of the wrong type is an error on this call and on every later one, and
  // the keys before it keep their new values; bundleID, executablePath and portName of the wrong
  // type count as missing. A dictionary of the wrong type is an error on this call only.
  virtual OSStatus readPreferences();

  // Turns off each way of finding or launching whose value is missing (signature, bundle
  // identifier, port name). If no way of finding is left, sets launchRetries to 0 for the rest of
  // the object's life. Returns 0.
  virtual OSStatus init();

  // Copies the values of the launch specification, once in the object's life. Returns 0.
  virtual OSStatus initParams();

  // Calls initParams, readPreferences and init. Returns the first error.
  virtual OSStatus prepare();

  // Read the stored launch preferences, and replace them. Return errAEDescNotFound if the launch
  // specification has no domain or no key.
  OSStatus getLaunchPrefsDict(VLTDictionary& out);
  OSStatus commitPrefs(VLTDictionary& dict);

  // Sets the application that is tried first, with all aliases resolved. Returns paramErr for null
  // or the File Manager's error, and changes nothing then.
  OSStatus setExecutable(FSSpec* spec);
  // Copies `name`, which may point into the current name; null or "" removes the port name. Turns
  // finding by port name on if there is a name and off if there is none. A name equal to the
  // current one changes nothing. Returns 0.
  OSStatus setPortName(const char* name);
  OSStatus setSignature(OSType newSignature);  // leaves the switches unchanged; returns 0
  OSType getSignature() const { return signature; }
  void setLaunchIfNotRunning(bool launchIt);

  // Opens one application. Returns 0, kLSLaunchInProgressErr, or procNotFound for any other
  // failure.
  OSStatus launch(FileSpecType& app);
  void logPathToApp(FileSpecType& app);  // called before an application is opened; does nothing

  // Returns 0 if a process owns the port name, procNotFound if not, paramErr for a null or empty
  // name, or another status of the look-up.
  static OSStatus findPort(const char* name);
  // Returns 0 if an application with that signature runs, else procNotFound.
  static OSStatus findPSN(OSType signature);
  // The same as probes. `first` is the name, or the signature as a number.
  static OSStatus findPort(void* first, void* second);
  static OSStatus findPSN(void* first, void* second);

  // Calls the probe until it returns something else than procNotFound, at most `retries` times, but
  // at least once. Sleeps after each procNotFound, also after the last. Returns the last result of
  // the probe. If `retries` is 0, returns 0 without a call. Returns paramErr for a null probe.
  static OSStatus waitForLaunch(VLTLaunchProbe probe, void* first, void* second, int sleepSeconds,
                                int retries);
  static OSStatus waitForPort(const char* name, int sleepSeconds, int retries);
  static OSStatus waitForPSN(OSType signature, int sleepSeconds, int retries);

  // Find the application with a signature or bundle identifier. Return 0 or procNotFound.
  static OSStatus getFileRefFromSignature(OSType signature, FSRef& out);
  static OSStatus getFileRefFromBundleID(const char* bundleID, FSRef& out);

  // Convert a path to a file reference and back. Return paramErr for a null argument, an empty path
  // or a size of 0, else the File Manager's result. A failure leaves `out` unchanged.
  static OSStatus PathToFileSpec(FileSpecType& out, const char* path);
  static OSStatus FileSpecToPath(FileSpecType& spec, char* buffer, UInt32 size);

  // Copy and free texts with the dictionary's allocator. StrDup returns null for null and when
  // memory runs out. StrFree sets the pointer to null.
  static char* StrDup(const char* text);
  static void StrFree(char*& text);

 protected:
  // Read one key of the launch preferences. A failure leaves `out` unchanged. Returns 0 also for a
  // four-character code that is empty or too long, which changes nothing.
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

  // The ways of launching and finding that are on.
  bool launchBySignature = false;
  bool launchByBundleID = false;
  bool findBySignature = false;
  bool findByPortName = false;

 private:
  void MaskSwitches();
  bool HasPreferencesKey() const;
  OSStatus ReadPreferenceKeys(VLTDictionary& dict);
};
