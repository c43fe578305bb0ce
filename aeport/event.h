#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/destination_address.h"
#include "aeport/return_address.h"

// VLTAppleEventWrapper is one request of a client: it owns the event, its reply and the port that
// the reply comes back to. Construct, createEvent, put parameters into `event`, sendEvent, read
// parameters from `reply`, finalizeEvent, destroy; destroying is safe at every stage. One thread at
// a time. Events for different threads are different objects.
class VLTAppleEventWrapper {
 public:
  VLTAppleEventWrapper(const VLTAppleEventWrapper&) = delete;
  VLTAppleEventWrapper& operator=(const VLTAppleEventWrapper&) = delete;
  virtual ~VLTAppleEventWrapper();  // disposes of the descriptors; see finalizeEvent

  // Gives the reply port up. Left undone, its table entry stays for the life of the process.
  virtual OSStatus finalizeEvent();

  // Borrowed: the address lives as long as the event.
  void setDestinationAddress(VLTAppleEventDestinationAddress* address) { destination = address; }

  // Makes the event for the destination, which has been initialised. paramErr without one; the
  // first error of address, port and event.
  OSStatus createEvent();

  // Sends, and waits for the reply when the constructor's mode says so: the reply bits of
  // `sendMode` do not count, its other bits do. May be repeated: an earlier reply is disposed of.
  //
  // timeoutTicks  1/60 s; 0 and kNoTimeOut wait for ever, kAEDefaultTimeout one minute.
  // Result        the failure of sending, else what the server's handler said (the reply's error
  //               number; 0 when it has none or one that cannot be read). getReplyHasError tells
  //               whether the reply held an error number, also of 0.
  OSStatus sendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority);

  AEDesc* getSndReply();  // where the reply goes; null when none is wanted
  bool getReplyHasError() const { return replyHasError; }

  // Diagnostics. printDesc renders and shows nothing: a place for a breakpoint.
  static void printDesc(const char* label, const AEDesc* desc);
  // The text of a descriptor in a new array, which the caller deletes. memFullErr when it is empty
  // or there is no memory; `buffer` is written on success only.
  static OSStatus printDescToBufAlloc(const AEDesc* desc, char*& buffer);

 protected:
  VLTAppleEventWrapper(UInt32 eventClass, UInt32 eventID, SInt32 sendMode,
                       VLTAppleEventDestinationAddress* destination, SInt16 returnID,
                       SInt32 transactionID);

  virtual OSStatus doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) = 0;

  AEDesc target = {typeNull, nullptr};
  bool targetCreated = false;
  bool eventCreated = false;
  bool replyReceived = false;
  bool replyHasError = false;
  UInt32 eventClass;
  UInt32 eventID;
  SInt32 replyMode;  // kAENoReply, kAEQueueReply or kAEWaitReply; 0 is refused by sending
  SInt16 returnID;
  SInt32 transactionID;
  VLTAppleEventDestinationAddress* destination;  // borrowed
  VLTAppleEventReturnAddress returnAddress;

 public:
  AEDesc event = {typeNull, nullptr};
  AEDesc reply = {typeNull, nullptr};

 private:
  void ForgetReply();
};

// An event for a process, by its serial number.
class VLTAppleEvent : public VLTAppleEventWrapper {
 public:
  VLTAppleEvent(UInt32 eventClass, UInt32 eventID, SInt32 sendMode,
                VLTAppleEventDestinationAddress* destination, SInt16 returnID, SInt32 transactionID)
      : VLTAppleEventWrapper(eventClass, eventID, sendMode, destination, returnID, transactionID) {}

 protected:
  OSStatus doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) override;
};

// An event for a named port.
class VLTPortAppleEvent : public VLTAppleEventWrapper {
 public:
  VLTPortAppleEvent(UInt32 eventClass, UInt32 eventID, SInt32 sendMode,
                    VLTPortDestinationAddress* destination, SInt16 returnID, SInt32 transactionID)
      : VLTAppleEventWrapper(eventClass, eventID, sendMode, destination, returnID, transactionID) {}

 protected:
  // The priority has no meaning between ports.
  OSStatus doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) override;
};
