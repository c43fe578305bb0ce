#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/client_support.h"
#include "aeport/param_copy.h"
#include "launch/launch.h"

// The device monitor as its clients see it: the devices there are, their settings, their status.
//
// Every request finds the daemon anew, so one that was restarted, or that serves one login session
// instead of all, needs no care. A daemon that does not run is started only when that has been
// switched on (DMSetLaunchIfNotRunning, or the launch preferences). A request blocks until the
// answer is there: at most five times the time-out, each followed by one second. The time-out is
// 500 seconds unless it is set.
//
// Threads  the first call on one thread before others use the client; one request at a time.
//
// Results of requests
//   0
//   procNotFound         the daemon does not run and was not started
//   errAETimeout, connectionInvalid   it does not answer; it ended before it answered
//   errAEDescNotFound, errAECoercionFail   its answer lacks the parameter; in no form of the wanted
//                        type
//   paramErr             a null text or list, or a buffer that is too small, as told below
//   anything else        what the daemon's handler said, or the Apple Event Manager
// Outputs are written on success only, unless said otherwise.

// Finds the daemon under the name that serves all sessions, else under this login session's.
class DMLaunch : public VLTLaunch {
 public:
  explicit DMLaunch(const VLTLaunchSpec& specification) : VLTLaunch(specification) {}
  ~DMLaunch() override;

  // As the base; while it finds by port name it also keeps the name that it found. Nobody there
  // forgets the name, any other failure keeps it.
  OSStatus find() override;

  // Copies; null for none. 0.
  OSStatus SetDeviceMonitorPortName(const char* name);
  // Where the daemon was last found, or null. Borrowed: valid until the next look-up.
  const char* GetDeviceMonitorPortName() const { return deviceMonitorPortName; }

 protected:
  char* deviceMonitorPortName = nullptr;  // owned, by the dictionary's allocator

 private:
  OSStatus FindForThisSession();
};

// Makes the device monitor's requests. One object, GetDMClient's, serves them all.
class DMClient : public VLTAEClientSupport {
 public:
  explicit DMClient(DMLaunch& daemonLauncher);  // borrowed for the object's life

  // Name a device in a request: by the daemon's id, by what it is on the USB, or by the text that
  // tells it from others on another bus. The first failing put ends it.
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, SInt32 deviceID);
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, SInt16 vendorID, SInt16 productID,
                       SInt32 location);
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, const char* bus, const char* text);

  // procNotFound, after a stop in the debugger if there is one, unless the launcher has found the
  // daemon.
  OSStatus GetDestinationAddress(VLTPortDestinationAddress& address) override;
  OSStatus VerifyServerRunning() override;
  OSStatus CheckServerRunning() override;

 protected:
  DMLaunch& launcher;
};

// The one launcher and the one client: made when first asked for, never destroyed.
DMLaunch& GetDeviceMonitorLauncher();
DMClient& GetDMClient();

// The connection. 0 unless said otherwise.

OSStatus DMSetSendEventTimeout(UInt32 timeoutTicks);     // 1/60 s, for each attempt; 0: for ever
OSStatus DMSetLaunchIfNotRunning(bool launchIt);         // launch preferences override it
OSStatus DMSetDeviceMonitorPortName(const char* name);   // all sessions'; paramErr for null and ""
OSStatus DMGetDeviceMonitorPortName(const char*& name);  // looks; null when nobody is there
OSStatus DMSetDeviceMonitorSignature(OSType signature);  // paramErr for 0
OSStatus DMGetDeviceMonitorSignature(OSType& signature);
OSStatus DMSetDeviceMonitorExecutable(FSSpec* spec);  // paramErr for null; VLTLaunch::setExecutable
OSStatus DMVerifyDaemonRunning();                     // VLTLaunch::findAndLaunch
OSStatus DMCheckDaemonRunning();                      // VLTLaunch::find; starts nothing

// Asks the daemon to quit and waits for no answer. One that is not running counts as done, and none
// is started.
OSStatus DMQuitDaemon();

// The ids of all devices. With maxCount 0 only `*count` is written. paramErr, with nothing written,
// when there are more than `maxCount`.
OSStatus DMGetDeviceIDs(SInt32* ids, SInt32 maxCount, SInt32* count);

// The id of one device, by its place on the USB or by the text that another bus tells it by.
OSStatus DMGetDeviceID(SInt16 vendorID, SInt16 productID, SInt32 location, SInt32& deviceID);
OSStatus DMGetDeviceID(const char* bus, const char* text, SInt32& deviceID);

// Stores `size` bytes of `type`, in this host's byte order, under a key.
OSStatus DMSetDevicePreference(SInt32 deviceID, const char* key, OSType type, const void* data,
                               SInt32 size);
OSStatus DMSetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, const void* data,
                              SInt32 size);

// Reads a value as `type` into a buffer; typeWildCard takes it as it is.
//
// actualSize  receives the bytes that the whole value has, 0 when it could not be read: the buffer
//             may hold only its beginning. Null: a value that is cut is errAEBufferTooSmall, though
//             the buffer was filled.
// actualType  receives the value's own type before any coercion, or `type` when it could not be
//             read. Null: a value of another type is errAECoercionFail, though it was coerced.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void* buffer,
                               SInt32 bufferSize, SInt32* actualSize, OSType* actualType);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void* buffer,
                              SInt32 bufferSize, SInt32* actualSize, OSType* actualType);

// The same into a new block of `allocator` (null: NewPtr), as AECopyParamData: `data` becomes null
// or a block, which is the caller's also after a failure. A request that failed earlier leaves
// `data` and the other outputs alone: begin with null.
//
// Beware: the attribute form asks for the PREFERENCE of that key. That is meant.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void*& data,
                               SInt32* size, OSType* actualType, AEPtrAllocator allocator);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void*& data,
                              SInt32* size, OSType* actualType, AEPtrAllocator allocator);

// The same into an existing handle, as AECopyParamDataToHandle: it takes the value's size, and size
// 0 when the value cannot be read. A request that failed earlier leaves it alone.
//
// Beware: the preference form asks for the ATTRIBUTE of that key. That is meant.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, char** handle,
                               OSType* actualType);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, char** handle,
                              OSType* actualType);

// Tells the daemon that a process takes pictures from a device, under a key of its own. Waits for
// no answer.
OSStatus DMRegisterRemoteDigitizer(SInt32 deviceID, ProcessSerialNumber& psn, const char* key);

// Registers a process for changes of the devices' status that `mask` selects; `param` comes back
// with each. `devices` receives the list as it is now, which the caller disposes of.
OSStatus DMRegisterForDeviceStatusNotification(ProcessSerialNumber* psn, const char* key,
                                               SInt16 param, SInt32 mask, AEDescList* devices);
// Only the list, once. Of the mask's low four bits none counts. paramErr for null: nothing is sent.
OSStatus DMGetDeviceStatus(SInt32 mask, AEDescList* devices);

// What the functions above share. `failureName` is the request's name in the log.

OSStatus DMGetDeviceIDSendAndHandleReply(VLTAppleEventWrapper& event, OSStatus err,
                                         SInt32& deviceID);
OSStatus DMSetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         const void* data, SInt32 size, const char* failureName);
OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         void* buffer, SInt32 bufferSize, SInt32* actualSize, OSType* actualType,
                         const char* failureName);
OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         void*& data, SInt32* size, OSType* actualType, AEPtrAllocator allocator,
                         const char* failureName);
OSStatus DMGetDeviceInfo(SInt32 deviceID, const char* key, AEEventID eventID, OSType type,
                         char** handle, OSType* actualType, const char* failureName);
