#include <chrono>
#include <cstdint>
#include <thread>

#include <mach/mach.h>
#include <servers/bootstrap.h>

#include "launch/launch.h"
#include "util/bootstrap_error.h"
#include "util/cf_strings.h"
#include "util/file_utils.h"

// Finding the daemon, starting it, waiting for it.

namespace {

constexpr OSType kApplicationType = FourCC('A', 'P', 'P', 'L');

bool IsEmpty(const char* text) { return text == nullptr || text[0] == 0; }

// Sleeps the whole time, also when signals arrive. A negative number counts as 0.
void SleepSeconds(int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::this_thread::sleep_until(end);
}

}  // namespace

OSStatus VLTLaunch::find() {
  const OSStatus err = prepare();
  if (err != 0) return err;
  if (findByPortName) return findPort(portName);
  if (findBySignature) return findPSN(signature);
  return paramErr;
}

OSStatus VLTLaunch::findPort(const char* name) {
  if (IsEmpty(name)) return paramErr;
  mach_port_t bootstrap = MACH_PORT_NULL;
  mach_port_t port = MACH_PORT_NULL;
  OSStatus err = task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap);
  if (err == 0) {
    err = bootstrap_look_up(bootstrap, name, &port);
    if (IsBootstrapError(err)) err = procNotFound;
  }
  if (err == 0) mach_port_deallocate(mach_task_self(), port);
  return err;
}

OSStatus VLTLaunch::findPSN(OSType signature) {
  ProcessSerialNumber psn;
  return FindPSN(&psn, signature, kApplicationType) == 0 ? 0 : procNotFound;
}

OSStatus VLTLaunch::findPort(void* first, void*) {
  return findPort(static_cast<const char*>(first));
}

OSStatus VLTLaunch::findPSN(void* first, void*) {
  return findPSN(static_cast<OSType>(reinterpret_cast<uintptr_t>(first)));
}

OSStatus VLTLaunch::findAndLaunch() {
  OSStatus err = find();
  if (err != procNotFound) return err;
  if (!launchIfNotFound) return procNotFound;
  err = launch();
  if (err != 0 && err != kLSLaunchInProgressErr) return err;
  return waitForLaunch();
}

// Meant: tries the bundle identifier before the signature, although its slot comes after; callers
// rely on which application is started.
OSStatus VLTLaunch::launch() {
  OSStatus err = findAndLaunchFromSpecified();
  if (err == procNotFound) err = findAndLaunchFromBundleID();
  if (err == procNotFound) err = findAndLaunchFromSignature();
  return err;
}

OSStatus VLTLaunch::findAndLaunchFromSpecified() {
  FileSpecType app;
  const OSStatus err = getAppFromSpecified(app);
  return err == 0 ? launch(app) : err;
}

OSStatus VLTLaunch::findAndLaunchFromSignature() {
  FileSpecType app;
  const OSStatus err = getAppFromSignature(app);
  return err == 0 ? launch(app) : err;
}

OSStatus VLTLaunch::findAndLaunchFromBundleID() {
  FileSpecType app;
  const OSStatus err = getAppFromBundleID(app);
  return err == 0 ? launch(app) : err;
}

OSStatus VLTLaunch::getAppFromSpecified(FileSpecType& out) {
  if (!executableValid || !executable.isValid()) return procNotFound;
  out = executable;
  return 0;
}

OSStatus VLTLaunch::getAppFromSignature(FileSpecType& out) {
  if (!launchBySignature || signature == 0) return procNotFound;
  FSRef ref;
  const OSStatus err = getFileRefFromSignature(signature, ref);
  if (err == 0) out = ref;
  return err;
}

OSStatus VLTLaunch::getAppFromBundleID(FileSpecType& out) {
  if (!launchByBundleID || IsEmpty(bundleID)) return procNotFound;
  FSRef ref;
  const OSStatus err = getFileRefFromBundleID(bundleID, ref);
  if (err == 0) out = ref;
  return err;
}

OSStatus VLTLaunch::getFileRefFromSignature(OSType signature, FSRef& out) {
  if (signature == 0) return procNotFound;
  const OSStatus err = LSFindApplicationForInfo(signature, nullptr, nullptr, &out, nullptr);
  return err == 0 ? 0 : procNotFound;
}

OSStatus VLTLaunch::getFileRefFromBundleID(const char* bundleID, FSRef& out) {
  if (IsEmpty(bundleID)) return procNotFound;
  const CFStringRef identifier = CStringToCFString(bundleID);
  if (identifier == nullptr) return procNotFound;
  const OSStatus err =
      LSFindApplicationForInfo(kLSUnknownCreator, identifier, nullptr, &out, nullptr);
  CFRelease(identifier);
  return err == 0 ? 0 : procNotFound;
}

OSStatus VLTLaunch::launch(FileSpecType& app) {
  logPathToApp(app);
  FSRef& ref = app;
  const OSStatus err = LSOpenFSRef(&ref, nullptr);
  return err == 0 || err == kLSLaunchInProgressErr ? err : procNotFound;
}

void VLTLaunch::logPathToApp(FileSpecType&) {}

OSStatus VLTLaunch::waitForLaunch() {
  if (findByPortName) return waitForPort(portName, launchRetrySleepInterval, launchRetries);
  if (findBySignature) return waitForPSN(signature, launchRetrySleepInterval, launchRetries);
  return 0;
}

OSStatus VLTLaunch::waitForPort(const char* name, int sleepSeconds, int retries) {
  if (IsEmpty(name)) return paramErr;
  return waitForLaunch(findPort, const_cast<char*>(name), nullptr, sleepSeconds, retries);
}

OSStatus VLTLaunch::waitForPSN(OSType signature, int sleepSeconds, int retries) {
  if (signature == 0) return paramErr;
  void* const first = reinterpret_cast<void*>(static_cast<uintptr_t>(signature));
  return waitForLaunch(findPSN, first, nullptr, sleepSeconds, retries);
}

OSStatus VLTLaunch::waitForLaunch(VLTLaunchProbe probe, void* first, void* second, int sleepSeconds,
                                  int retries) {
  if (probe == nullptr) return paramErr;
  if (retries == 0) return 0;
  OSStatus err;
  int count = 0;
  do {
    err = probe(first, second);
    if (err == procNotFound) {
      SleepSeconds(sleepSeconds);  // Meant: also after the last probe; callers rely on the time
      ++count;
    }
  } while (err == procNotFound && count < retries);
  return err;
}
