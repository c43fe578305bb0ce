#pragma once

#include <CoreServices/CoreServices.h>

#include "aeport/destination_address.h"
#include "aeport/return_address.h"

// VLTAppleEventWrapper is one request of a client. It owns the event, its reply and the port that
// receives the reply. Use it in this order: construct, createEvent, put parameters into `event`,
// sendEvent, read parameters from `reply`, finalizeEvent, destroy. It may be destroyed at every
// stage. Only one thread at a time may use an object.
class VLTAppleEventWrapper {
 public:
  VLTAppleEventWrapper(const VLTAppleEventWrapper&) = delete;
  VLTAppleEventWrapper& operator=(const VLTAppleEventWrapper&) = delete;
  virtual ~VLTAppleEventWrapper();  // disposes of the descriptors; see finalizeEvent

  // Releases the reply port. Without this call its table entry stays until the process ends.
  virtual OSStatus finalizeEvent();

  // The address is borrowed and must live as long as the event.
  void setDestinationAddress(VLTAppleEventDestinationAddress* address) { destination = address; }

  // Creates the event for the destination, which must have been initialised. Returns 0; paramErr
  // without a destination; or the first error of the address, the reply port and the event.
  OSStatus createEvent();

  // Sends the event, and waits for the reply if the send mode given to the constructor asks for
  // one: its reply bits replace those of `sendMode`. May be repeated; an earlier reply is disposed
  // of.
  //
  // timeoutTicks  in 1/60 s; 0 and kNoTimeOut wait for ever, kAEDefaultTimeout one minute.
  // Result        the error of sending, otherwise the error number in the reply: 0 if it has none,
  //               or one that is not a long of 4 bytes. getReplyHasError tells whether the reply
  //               held an error number, even 0.
  OSStatus sendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority);

  AEDesc* getSndReply();  // the reply to fill; null if the event wants none
  bool getReplyHasError() const { return replyHasError; }

  // Diagnostics. printDesc makes the text and shows it nowhere: set a breakpoint there.
  static void printDesc(const char* label, const AEDesc* desc);
  // Stores the text of a descriptor in a new array, which the caller deletes. Returns memFullErr if
  // the text is empty or memory runs out. `buffer` is written on success only.
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
  SInt32 replyMode;  // kAENoReply, kAEQueueReply or kAEWaitReply; sending fails with 0
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

// An event for a process, addressed by its serial number.
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
  // Ports ignore the priority.
  OSStatus doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) override;
};
