#include "clients/device_monitor.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "aeport/params.h"
#include "clients/device_protocol.h"
#include "clients/quit_request.h"
#include "util/user_session.h"

namespace {

constexpr bool kMayLaunch = true;
constexpr int kAttempts = 5;

// A request whose parameters `put` has added. The event refers to the address in the same object.
struct FilledRequest {
  template <class Put>
  FilledRequest(AEEventID eventID, SInt32 replyMode, Put put)
      : event(kDMEventClass, eventID, replyMode, nullptr, kAutoGenerateReturnID,
              kAnyTransactionID) {
    err = GetDMClient().ConstructEvent(address, event, kMayLaunch);
    if (err == 0) err = put(event);
  }

  VLTPortDestinationAddress address;
  VLTPortAppleEvent event;
  OSStatus err;
};

// The second half of every request: sends it, calls `read` with the reply, reports the result.
template <class Read>
OSStatus SendAndHandleReply(VLTAppleEventWrapper& event, OSStatus err, const char* failureName,
                            Read read) {
  DMClient& client = GetDMClient();
  if (err == 0) err = client.SendEvent(event, 0, kAttempts, 0);
  if (err == 0) err = read(&event.reply);
  client.HandleResult(err, &event, failureName, nullptr);
  return err;
}

template <class Put, class Read>
OSStatus Request(AEEventID eventID, SInt32 replyMode, const char* failureName, Put put, Read read) {
  FilledRequest request(eventID, replyMode, put);
  return SendAndHandleReply(request.event, request.err, failureName, read);
}

// For requests without parameters and for replies without results.
OSStatus PutNothing(VLTAppleEventWrapper&) { return 0; }
OSStatus ReadNothing(const AEDesc*) { return 0; }

OSStatus PutDeviceAndKey(VLTAppleEventWrapper& event, SInt32 deviceID, const char* key) {
  OSStatus err = GetDMClient().AddDeviceID(event, deviceID);
  if (err == 0) err = PutAECString(&event.event, keyDMSettingKey, key);
  return err;
}

OSStatus PutProcess(AEDesc& event, const ProcessSerialNumber* psn) {
  return AEPutParamPtr(&event, keyDMProcess, typeProcessSerialNumber, psn, sizeof *psn);
}

// Requests a setting and calls `read` with the reply.
template <class Read>
OSStatus GetSetting(SInt32 deviceID, const char* key, AEEventID eventID, const char* failureName,
                    Read read) {
  return Request(
      eventID, kAEWaitReply, failureName,
      [&](VLTAppleEventWrapper& event) { return PutDeviceAndKey(event, deviceID, key); }, read);
}

OSStatus ReadDeviceIDs(const AEDesc* reply, SInt32* ids, SInt32 maxCount, SInt32* count) {
  constexpr SInt32 kIDSize = sizeof(SInt32);
  Size size = 0;
  OSStatus err = AEGetParamPtr(reply, keyDMDeviceIDs, typeSInt32, nullptr, nullptr, 0, &size);
  if (err == 0 && maxCount != 0) {
    if (size > int64_t{maxCount} * kIDSize) return paramErr;
    err = AEGetParamPtr(reply, keyDMDeviceIDs, typeSInt32, nullptr, ids, size, nullptr);
  }
  if (err == 0 && count != nullptr) *count = size / kIDSize;
  return err;
}

OSStatus ReadIntoBuffer(const AEDesc* reply, OSType type, void* buffer, SInt32 bufferSize,
                        SInt32* actualSize, OSType* actualType) {
  Size size = 0;
  DescType ownType = type;  // unless there is a value
  AESizeOfParam(reply, keyDMSettingValue, &ownType, nullptr);
  OSStatus err = AEGetParamPtr(reply, keyDMSettingValue, type, nullptr, buffer, bufferSize, &size);
  if (actualSize != nullptr) {
    *actualSize = size;
  } else if (size > bufferSize) {
    err = errAEBufferTooSmall;
  }
  if (actualType != nullptr) {
    *actualType = ownType;
  } else if (ownType != type) {
    err = errAECoercionFail;
  }
  return err;
}

OSStatus ReadDeviceList(const AEDesc* reply, AEDescList* devices) {
  return AEGetParamDesc(reply, keyDMDeviceList, typeAEList, devices);
}

}  // namespace

DMLaunch::~DMLaunch() { StrFree(deviceMonitorPortName); }

OSStatus DMLaunch::find() {
  OSStatus err = VLTLaunch::find();
  if (!findByPortName) return err;
  if (err == 0) SetDeviceMonitorPortName(portName);
  if (err == procNotFound) err = FindForThisSession();
  if (err == procNotFound) SetDeviceMonitorPortName(nullptr);
  return err;
}

// Returns 0 or procNotFound.
OSStatus DMLaunch::FindForThisSession() {
  bool isRoot = false;
  UInt32 sessionID = 0;
  GetUserSessionIsRoot(isRoot);
  if (isRoot || GetUserSessionID(sessionID) != 0) return procNotFound;
  char suffix[sizeof ".ffffffff"];
  std::snprintf(suffix, sizeof suffix, ".%" PRIx32, sessionID);
  const std::string name = std::string(portName) + suffix;
  if (findPort(name.c_str()) != 0) return procNotFound;
  return SetDeviceMonitorPortName(name.c_str());
}

OSStatus DMLaunch::SetDeviceMonitorPortName(const char* name) {
  const char* const old = deviceMonitorPortName;
  if (old == name || (old != nullptr && name != nullptr && std::strcmp(old, name) == 0)) return 0;
  char* const copy = StrDup(name);
  StrFree(deviceMonitorPortName);  // last: `name` may point into it
  deviceMonitorPortName = copy;
  return 0;
}

DMClient::DMClient(DMLaunch& daemonLauncher)
    : VLTAEClientSupport("VeltraneDeviceMonitor", "client", "Driver", kMonitorSendFlags,
                         kMonitorTimeoutTicks, false, false, true),
      launcher(daemonLauncher) {}

OSStatus DMClient::AddDeviceID(VLTAppleEventWrapper& event, SInt32 deviceID) {
  return PutAELong(&event.event, keyDMDeviceID, &deviceID);
}

OSStatus DMClient::AddDeviceID(VLTAppleEventWrapper& event, SInt16 vendorID, SInt16 productID,
                               SInt32 location) {
  OSStatus err = PutAEShort(&event.event, keyDMProductID, &productID);
  if (err == 0) err = PutAEShort(&event.event, keyDMVendorID, &vendorID);
  if (err == 0) err = PutAELong(&event.event, keyDMLocation, &location);
  if (err == 0) err = PutAECString(&event.event, keyDMBus, kDMUSBBus);
  return err;
}

OSStatus DMClient::AddDeviceID(VLTAppleEventWrapper& event, const char* bus, const char* text) {
  OSStatus err = PutAECString(&event.event, keyDMSerial, text);
  if (err == 0) err = PutAECString(&event.event, keyDMBus, bus);
  return err;
}

OSStatus DMClient::GetDestinationAddress(VLTPortDestinationAddress& address) {
  const char* const name = launcher.GetDeviceMonitorPortName();
  if (name == nullptr || name[0] == 0) {
    Debugger();
    return procNotFound;
  }
  address = VLTPortDestinationAddress(name);
  return 0;
}

// The look-up that found no daemon cleared the stored name, and waiting for the daemon that was
// started does not set it. Without another look-up the request that started the daemon would fail.
OSStatus DMClient::VerifyServerRunning() {
  OSStatus err = launcher.findAndLaunch();
  if (err == 0 && launcher.GetDeviceMonitorPortName() == nullptr) err = launcher.find();
  return err;
}

OSStatus DMClient::CheckServerRunning() { return launcher.find(); }

// Never destroyed, because destructors that run after main may still send requests.
DMLaunch& GetDeviceMonitorLauncher() {
  static DMLaunch& launcher = *new DMLaunch(gDeviceMonitorLaunchSpec);
  return launcher;
}

DMClient& GetDMClient() {
  static DMClient& client = *new DMClient(GetDeviceMonitorLauncher());
  return client;
}

OSStatus DMSetSendEventTimeout(UInt32 timeoutTicks) {
  GetDMClient().setSendEventTimeout(timeoutTicks);
  return 0;
}

OSStatus DMSetLaunchIfNotRunning(bool launchIt) {
  GetDeviceMonitorLauncher().setLaunchIfNotRunning(launchIt);
  return 0;
}

OSStatus DMSetDeviceMonitorPortName(const char* name) {
  if (name == nullptr || name[0] == 0) return paramErr;
  return GetDeviceMonitorLauncher().setPortName(name);
}

OSStatus DMGetDeviceMonitorPortName(const char*& name) {
  GetDeviceMonitorLauncher().find();
  name = GetDeviceMonitorLauncher().GetDeviceMonitorPortName();
  return 0;
}

OSStatus DMSetDeviceMonitorSignature(OSType signature) {
  return signature == 0 ? OSStatus{paramErr} : GetDeviceMonitorLauncher().setSignature(signature);
}

OSStatus DMGetDeviceMonitorSignature(OSType& signature) {
  signature = GetDeviceMonitorLauncher().getSignature();
  return 0;
}

OSStatus DMSetDeviceMonitorExecutable(FSSpec* spec) {
  return spec == nullptr ? OSStatus{paramErr} : GetDeviceMonitorLauncher().setExecutable(spec);
}

OSStatus DMVerifyDaemonRunning() { return GetDeviceMonitorLauncher().findAndLaunch(); }
OSStatus DMCheckDaemonRunning() { return GetDeviceMonitorLauncher().find(); }

// Meant: the log entry has to spell this name "DMQuitDemon"; readers of the log rely on it.
OSStatus DMQuitDaemon() { return SendQuitRequest(GetDMClient(), false, "DMQuitDemon"); }

OSStatus DMGetDeviceIDs(SInt32* ids, SInt32 maxCount, SInt32* count) {
  return Request(kDMGetDeviceIDs, kAEWaitReply, "DMGetDeviceIDs", PutNothing,
                 [&](const AEDesc* reply) { return ReadDeviceIDs(reply, ids, maxCount, count); });
}

OSStatus DMGetDeviceIDSendAndHandleReply(VLTAppleEventWrapper& event, OSStatus err,
                                         SInt32& deviceID) {
  return SendAndHandleReply(event, err, "DMGetDeviceID", [&](const AEDesc* reply) {
    SInt32 found = 0;
    const OSStatus readErr = GetAELong(reply, keyDMDeviceID, &found);
    if (readErr == 0) deviceID = found;
    return readErr;
  });
}

OSStatus DMGetDeviceID(SInt16 vendorID, SInt16 productID, SInt32 location, SInt32& deviceID) {
  FilledRequest request(kDMGetDeviceID, kAEWaitReply, [&](VLTAppleEventWrapper& event) {
    return GetDMClient().AddDeviceID(event, vendorID, productID, location);
  });
  return DMGetDeviceIDSendAndHandleReply(request.event, request.err, deviceID);
}

OSStatus DMGetDeviceID(const char* bus, const char* text, SInt32& deviceID) {
  FilledRequest request(kDMGetDeviceID, kAEWaitReply, [&](VLTAppleEventWrapper& event) {
    return GetDMClient().AddDeviceID(event, bus, text);
  });
  return DMGetDeviceIDSendAndHandleReply(request.event, request.err, deviceID);
}

OSStatus DMSetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         const void* data, SInt32 size, const char* failureName) {
  return Request(
      eventID, kAEWaitReply, failureName,
      [&](VLTAppleEventWrapper& event) {
        OSStatus err = PutDeviceAndKey(event, deviceID, key);
        if (err == 0) err = AEPutParamPtr(&event.event, keyDMSettingValue, type, data, size);
        return err;
      },
      ReadNothing);
}

OSStatus DMSetDevicePreference(SInt32 deviceID, const char* key, OSType type, const void* data,
                               SInt32 size) {
  return DMSetDeviceInfo(deviceID, key, kDMSetPreference, type, data, size,
                         "DMSetDevicePreference");
}

OSStatus DMSetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, const void* data,
                              SInt32 size) {
  // Meant: the log entry has to spell this name "DMSetDevicAttribute", as above.
  return DMSetDeviceInfo(deviceID, key, kDMSetAttribute, type, data, size, "DMSetDevicAttribute");
}

OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         void* buffer, SInt32 bufferSize, SInt32* actualSize, OSType* actualType,
                         const char* failureName) {
  return GetSetting(deviceID, key, eventID, failureName, [&](const AEDesc* reply) {
    return ReadIntoBuffer(reply, type, buffer, bufferSize, actualSize, actualType);
  });
}

OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         void*& data, SInt32* size, OSType* actualType, AEPtrAllocator allocator,
                         const char* failureName) {
  return GetSetting(deviceID, key, eventID, failureName, [&](const AEDesc* reply) {
    return AECopyParamData(reply, keyDMSettingValue, type, data, size, actualType, allocator);
  });
}

OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         char** handle, OSType* actualType, const char* failureName) {
  return GetSetting(deviceID, key, eventID, failureName, [&](const AEDesc* reply) {
    return AECopyParamDataToHandle(reply, keyDMSettingValue, type, handle, actualType);
  });
}

OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void* buffer,
                               SInt32 bufferSize, SInt32* actualSize, OSType* actualType) {
  return DMGetDeviceInfo(deviceID, key, kDMGetPreference, type, buffer, bufferSize, actualSize,
                         actualType, "DMGetDevicePreference");
}

OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void* buffer,
                              SInt32 bufferSize, SInt32* actualSize, OSType* actualType) {
  return DMGetDeviceInfo(deviceID, key, kDMGetAttribute, type, buffer, bufferSize, actualSize,
                         actualType, "DMGetDeviceAttribute");
}

// Meant: both forms with an allocator read the preference, and both forms with a handle, below,
// read the attribute, because clients and daemons in the field rely on it.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void*& data,
                               SInt32* size, OSType* actualType, AEPtrAllocator allocator) {
  return DMGetDeviceInfo(deviceID, key, kDMGetPreference, type, data, size, actualType, allocator,
                         "DMGetDevicePreference");
}

OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void*& data,
                              SInt32* size, OSType* actualType, AEPtrAllocator allocator) {
  return DMGetDeviceInfo(deviceID, key, kDMGetPreference, type, data, size, actualType, allocator,
                         "DMGetDeviceAttribute");
}

OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, char** handle,
                               OSType* actualType) {
  return DMGetDeviceInfo(deviceID, key, kDMGetAttribute, type, handle, actualType,
                         "DMGetDevicePreference");
}

OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, char** handle,
                              OSType* actualType) {
  return DMGetDeviceInfo(deviceID, key, kDMGetAttribute, type, handle, actualType,
                         "DMGetDeviceAttribute");
}

OSStatus DMRegisterRemoteDigitizer(SInt32 deviceID, ProcessSerialNumber& psn, const char* key) {
  return Request(
      kDMRegisterDigitizer, kAENoReply, "DMRegisterRemoteDigitizer",
      [&](VLTAppleEventWrapper& event) {
        OSStatus err = PutDeviceAndKey(event, deviceID, key);
        if (err == 0) err = PutProcess(event.event, &psn);
        return err;
      },
      ReadNothing);
}

OSStatus DMRegisterForDeviceStatusNotification(ProcessSerialNumber* psn, const char* key,
                                               SInt16 param, SInt32 mask, AEDescList* devices) {
  return Request(
      kDMRegisterForStatus, kAEWaitReply, "DMRegisterForDeviceStatusNotification",
      [&](VLTAppleEventWrapper& event) {
        OSStatus err = PutAECString(&event.event, keyDMSettingKey, key);
        if (err == 0) err = PutProcess(event.event, psn);
        if (err == 0) err = PutAEShort(&event.event, keyDMStatusParam, &param);
        if (err == 0) err = PutAELong(&event.event, keyDMStatusMask, &mask);
        return err;
      },
      [&](const AEDesc* reply) { return ReadDeviceList(reply, devices); });
}

OSStatus DMGetDeviceStatus(SInt32 mask, AEDescList* devices) {
  static constexpr char kName[] = "DMGetDeviceStatus";
  if (devices == nullptr) {
    GetDMClient().HandleResult(paramErr, nullptr, kName, nullptr);
    return paramErr;
  }
  const auto onceMask = static_cast<SInt32>((static_cast<UInt32>(mask) & ~0xFu) | kDMStatusOnce);
  const ProcessSerialNumber nobody = {0, kNoProcess};
  return Request(
      kDMRegisterForStatus, kAEWaitReply, kName,
      [&](VLTAppleEventWrapper& event) {
        OSStatus err = PutAECString(&event.event, keyDMSettingKey, "");
        if (err == 0) err = PutProcess(event.event, &nobody);
        if (err == 0) err = PutAELong(&event.event, keyDMStatusMask, &onceMask);
        return err;
      },
      [&](const AEDesc* reply) { return ReadDeviceList(reply, devices); });
}
