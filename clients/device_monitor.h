#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/client_support.h"
#include "aeport/param_copy.h"
#include "launch/launch.h"

// Requests to the device monitor: which devices there are, their settings and their status.
//
// Every request looks the daemon up again, so clients need no reset after a daemon has been
// restarted, or when it serves one login session instead of all. The daemon is started only if
// DMSetLaunchIfNotRunning or the launch preferences ask for it. A request blocks until the reply
// arrives: it makes at most five attempts, each of which takes at most the time-out (500 s unless
// it is set) and, if it times out, one second more.
//
// Threads  The first call has to return before other threads use the client. One request at a time.
//
// Results of requests
//   0
//   procNotFound         the daemon does not run and was not started
//   errAETimeout         the daemon did not reply in time
//   connectionInvalid    the daemon ended before it replied
//   errAEDescNotFound    the reply lacks the parameter
//   errAECoercionFail    the reply's parameter cannot be converted to the wanted type
//   paramErr             a null text or list, or a buffer that is too small, as described below
//   anything else        the error of the daemon's handler or of the Apple Event Manager
// Outputs are written on success only, unless the function says otherwise.

// Finds the daemon under the port name for all login sessions, else under the name for this one.
class DMLaunch : public VLTLaunch {
 public:
  explicit DMLaunch(const VLTLaunchSpec& specification) : VLTLaunch(specification) {}
  ~DMLaunch() override;

  // Like VLTLaunch::find. While finding by port name is on, also stores the name under which the
  // daemon was found. procNotFound clears the stored name; any other failure leaves it.
  OSStatus find() override;

  // Stores a copy of `name`, which may point into the stored name; null clears it. Returns 0.
  OSStatus SetDeviceMonitorPortName(const char* name);
  // Returns the port name under which the daemon was last found, or null. Borrowed: valid until the
  // next look-up.
  const char* GetDeviceMonitorPortName() const { return deviceMonitorPortName; }

 protected:
  char* deviceMonitorPortName = nullptr;  // owned, by the dictionary's allocator

 private:
  OSStatus FindForThisSession();
};

// Sends the requests. All functions below use one object, that of GetDMClient.
class DMClient : public VLTAEClientSupport {
 public:
  explicit DMClient(DMLaunch& daemonLauncher);  // borrowed for the object's life

  // Put the device into a request: by the id that the daemon gave it, by its identity and position
  // on the USB, or by the text that identifies it on another bus. Return the first error.
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, SInt32 deviceID);
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, SInt16 vendorID, SInt16 productID,
                       SInt32 location);
  OSStatus AddDeviceID(VLTAppleEventWrapper& event, const char* bus, const char* text);

  // Sets `address` to the port name that the launcher has stored. If it has none, breaks into an
  // attached debugger and returns procNotFound.
  OSStatus GetDestinationAddress(VLTPortDestinationAddress& address) override;
  OSStatus VerifyServerRunning() override;
  OSStatus CheckServerRunning() override;

 protected:
  DMLaunch& launcher;
};

// The launcher and the client of this process, created by the first call and never destroyed.
DMLaunch& GetDeviceMonitorLauncher();
DMClient& GetDMClient();

// The connection. These functions return 0 unless they say otherwise.

// Sets the time-out of each attempt, in 1/60 s; 0 waits for ever.
OSStatus DMSetSendEventTimeout(UInt32 timeoutTicks);
// Sets whether requests start the daemon. Launch preferences override it.
OSStatus DMSetLaunchIfNotRunning(bool launchIt);
// Sets the port name for all login sessions. Returns paramErr for null and "". The first look-up
// replaces a name and a signature that were set before it.
OSStatus DMSetDeviceMonitorPortName(const char* name);
// Looks the daemon up. `name` becomes the port name under which it was found, or null.
OSStatus DMGetDeviceMonitorPortName(const char*& name);
// Returns paramErr for 0.
OSStatus DMSetDeviceMonitorSignature(OSType signature);
OSStatus DMGetDeviceMonitorSignature(OSType& signature);
// Returns paramErr for null, else the result of VLTLaunch::setExecutable.
OSStatus DMSetDeviceMonitorExecutable(FSSpec* spec);
// Starts the daemon if it does not run and may be started; see VLTLaunch::findAndLaunch.
OSStatus DMVerifyDaemonRunning();
// Looks the daemon up and never starts it; see VLTLaunch::find.
OSStatus DMCheckDaemonRunning();

// Sends the quit event without waiting for a reply. Never starts the daemon; returns 0 if it does
// not run.
OSStatus DMQuitDaemon();

// Fetches the ids of all devices. If maxCount is 0, writes only `*count`. If there are more than
// `maxCount` ids, returns paramErr and writes nothing.
OSStatus DMGetDeviceIDs(SInt32* ids, SInt32 maxCount, SInt32* count);

// Fetch the id of one device: by its identity and position on the USB, or by the text that
// identifies it on another bus.
OSStatus DMGetDeviceID(SInt16 vendorID, SInt16 productID, SInt32 location, SInt32& deviceID);
OSStatus DMGetDeviceID(const char* bus, const char* text, SInt32& deviceID);

// Store `size` bytes of `type`, in this CPU's byte order, under a key.
OSStatus DMSetDevicePreference(SInt32 deviceID, const char* key, OSType type, const void* data,
                               SInt32 size);
OSStatus DMSetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, const void* data,
                              SInt32 size);

// Read a value, converted to `type`, into a buffer. typeWildCard reads it in its own type.
//
// actualSize  Receives the size of the whole value, also if the buffer holds only its beginning, or
//             0 if the value could not be read. If it is null, a value that does not fit gives
//             errAEBufferTooSmall, but the buffer is filled.
// actualType  Receives the value's own type before conversion, also if the conversion failed, or
//             `type` if the reply has no value. If it is null, a value of another type gives
//             errAECoercionFail, but the buffer is filled.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void* buffer,
                               SInt32 bufferSize, SInt32* actualSize, OSType* actualType);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void* buffer,
                              SInt32 bufferSize, SInt32* actualSize, OSType* actualType);

// Read a value into a new block of `allocator` (null: NewPtr), like AECopyParamData: `data` becomes
// null or a block, which belongs to the caller also after a failure. A request that fails before
// its reply is read leaves `data` and the other outputs unchanged, so initialise `data` with null.
//
// Meant: the attribute form reads the PREFERENCE of that key; clients and daemons in the field rely
// on it.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, void*& data,
                               SInt32* size, OSType* actualType, AEPtrAllocator allocator);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, void*& data,
                              SInt32* size, OSType* actualType, AEPtrAllocator allocator);

// Read a value into an existing handle, like AECopyParamDataToHandle: the handle is set to the
// value's size, or to 0 if the value cannot be read. A request that fails before its reply is read
// leaves it unchanged.
//
// Meant: the preference form reads the ATTRIBUTE of that key; clients and daemons in the field rely
// on it.
OSStatus DMGetDevicePreference(SInt32 deviceID, const char* key, OSType type, char** handle,
                               OSType* actualType);
OSStatus DMGetDeviceAttribute(SInt32 deviceID, const char* key, OSType type, char** handle,
                              OSType* actualType);

// Registers a process as the one that captures pictures from a device, under a key that the process
// chooses. Sends without waiting for a reply.
OSStatus DMRegisterRemoteDigitizer(SInt32 deviceID, ProcessSerialNumber& psn, const char* key);

// Registers a process for the changes of device status that `mask` selects; each notification
// carries `param`. `devices` receives the current list; the caller disposes of it.
OSStatus DMRegisterForDeviceStatusNotification(ProcessSerialNumber* psn, const char* key,
                                               SInt16 param, SInt32 mask, AEDescList* devices);
// Fetches the current list without registering. The low four bits of `mask` are ignored. If
// `devices` is null, returns paramErr and sends nothing.
OSStatus DMGetDeviceStatus(SInt32 mask, AEDescList* devices);

// The common parts of the functions above. `failureName` is the request's name in the log.

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
