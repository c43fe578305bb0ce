#include "launch/launch.h"

#include <cstring>

#include "plist/dictionary.h"

namespace {

bool IsEmpty(const char* text) { return text == nullptr || text[0] == 0; }

bool AreEqual(const char* a, const char* b) {
  return a == b || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

}  // namespace

VLTLaunch::VLTLaunch(const VLTLaunchSpec& specification)
    : spec(specification),
      launchIfNotFound(specification.launchIfNotFound != 0),
      launchRetrySleepInterval(specification.launchRetrySleepInterval),
      launchRetries(specification.launchRetries),
      prefsDomain(specification.prefsDomain),
      prefsKey(specification.prefsKey) {}

VLTLaunch::~VLTLaunch() {
  StrFree(bundleID);
  StrFree(portName);
}

OSStatus VLTLaunch::prepare() {
  OSStatus err = initParams();
  if (err == 0) err = readPreferences();
  if (err == 0) err = init();
  return err;
}

OSStatus VLTLaunch::initParams() {
  if (paramsInitialised) return 0;
  if (launchRetrySleepInterval == 0) launchRetrySleepInterval = 2;
  if (launchRetries == 0) launchRetries = 20;
  signature = spec.signature;
  // Meant: a name that was set before the first look-up is overwritten, because callers rely on it.
  StrFree(bundleID);
  bundleID = StrDup(spec.bundleID);
  StrFree(portName);
  portName = StrDup(spec.portName);
  executableValid = PathToFileSpec(executable, spec.executablePath) == 0;
  launchBySignature = spec.launchBySignature != 0;
  launchByBundleID = spec.launchByBundleID != 0;
  findBySignature = spec.findBySignature != 0;
  findByPortName = spec.findByPortName != 0;
  MaskSwitches();
  paramsInitialised = true;
  return 0;
}

OSStatus VLTLaunch::init() {
  MaskSwitches();
  executableValid = executable.isValid();
  // Meant: stays 0 if a way of finding is turned on later, because waiting was given up for good.
  if (!findByPortName && !findBySignature) launchRetries = 0;
  return 0;
}

// A way of finding or launching whose value is missing is turned off.
void VLTLaunch::MaskSwitches() {
  launchBySignature = launchBySignature && signature != 0;
  launchByBundleID = launchByBundleID && !IsEmpty(bundleID);
  findBySignature = findBySignature && signature != 0;
  findByPortName = findByPortName && !IsEmpty(portName);
}

OSStatus VLTLaunch::setExecutable(FSSpec* file) {
  if (file == nullptr) return paramErr;
  FSSpec target = *file;
  FSRef ref;
  Boolean isFolder = false;
  Boolean wasAliased = false;
  OSStatus err = ResolveAliasFile(&target, true, &isFolder, &wasAliased);
  if (err == 0) err = FSpMakeFSRef(&target, &ref);
  if (err != 0) return err;
  executable = ref;
  executableValid = true;
  return 0;
}

OSStatus VLTLaunch::setPortName(const char* name) {
  if (AreEqual(name, portName)) return 0;
  const bool hasName = !IsEmpty(name);
  char* const copy = hasName ? StrDup(name) : nullptr;
  StrFree(portName);  // last: `name` may point into it
  portName = copy;
  findByPortName = hasName;
  return 0;
}

OSStatus VLTLaunch::setSignature(OSType newSignature) {
  signature = newSignature;
  return 0;
}

void VLTLaunch::setLaunchIfNotRunning(bool launchIt) { launchIfNotFound = launchIt; }

OSStatus VLTLaunch::PathToFileSpec(FileSpecType& out, const char* path) {
  if (IsEmpty(path)) return paramErr;
  FSRef ref;
  const OSStatus err = FSPathMakeRef(reinterpret_cast<const UInt8*>(path), &ref, nullptr);
  if (err == 0) out = ref;
  return err;
}

OSStatus VLTLaunch::FileSpecToPath(FileSpecType& file, char* buffer, UInt32 size) {
  if (buffer == nullptr || size == 0) return paramErr;
  FSRef& ref = file;
  return FSRefMakePath(&ref, reinterpret_cast<UInt8*>(buffer), size);
}

char* VLTLaunch::StrDup(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  char* const copy = VLTDictionaryBase::PtrAllocator(static_cast<SInt32>(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

void VLTLaunch::StrFree(char*& text) {
  VLTDictionaryBase::PtrFree(text);
  text = nullptr;
}
