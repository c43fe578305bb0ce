#pragma once

#include <Carbon/Carbon.h>

#include "aeport/destination_address.h"
#include "aeport/event.h"

// VLTAEClientSupport is the base of the objects through which a process talks to one of the
// package's daemons. It prepares a request, sends it with the package's send mode, time-out and
// retries, and says what a failure means: a server that is gone is logged and shown to the user
// once per run of failures, one that does not know the request is shown as incompatible, and a
// failure of the caller's own making is only logged.
//
// One request: make an address and a VLTPortAppleEvent without destination, ConstructEvent, put
// parameters into the event, SendEvent, read the reply, HandleResult (also after success: it arms
// the notice anew).
//
// An object belongs to one thread at a time. Notices and their state are the process's and may come
// from any thread. An object may go while its notice is on screen.
class VLTAEClientSupport {
 public:
  VLTAEClientSupport() = default;

  // The names are borrowed and must outlive the object; null and empty ones become "Server",
  // "Client" and "Package" when the first message is made.
  //
  // sendModeFlags  added to every send mode
  // timeoutTicks   of sends that bring none, 1/60 s; 0 waits for ever
  // notifyUser     whether notices are shown at all
  // logFailures    whether failures go to the system log
  // reportFirstFailureOnly  of a run of failures that mean the server is gone
  VLTAEClientSupport(const char* serverName, const char* clientName, const char* packageName,
                     SInt32 sendModeFlags, SInt32 timeoutTicks, bool notifyUser, bool logFailures,
                     bool reportFirstFailureOnly);
  VLTAEClientSupport(const VLTAEClientSupport&) = delete;
  VLTAEClientSupport& operator=(const VLTAEClientSupport&) = delete;
  virtual ~VLTAEClientSupport() = default;

  // ReadFromPreferences, then ResetSendFailures. The former's error.
  virtual OSStatus Init();

  // Sends and gives the event's reply port up. A send that times out is followed by one second of
  // sleep and, while attempts are left, by another one.
  //
  // sendMode      besides the object's own flags, which are added to it
  // retries       attempts; 0 or less: the object's own number, at least one
  // timeoutTicks  1/60 s for each attempt; 0 or less: the object's own
  // Result        sendEvent's of the last attempt, else the error of giving the port up
  virtual OSStatus SendEvent(VLTAppleEventWrapper& event, SInt32 sendMode, int retries,
                             int timeoutTicks);

  // Makes sure that the server runs (`verify`) or only looks, finds it, and creates the event for
  // it. The event refers to `address`, which must outlive it, also when this fails. The first
  // error; -1 when the object has no server of its own.
  virtual OSStatus ConstructEvent(VLTPortDestinationAddress& address, VLTAppleEventWrapper& event,
                                  bool verify);

  // Reports how a request ended. `event` may be null: as one whose reply had no error number.
  // `functionName` is the request's name in the log. `notifyText`, when it is not null, replaces
  // the text about a server that is gone.
  virtual void HandleResult(OSStatus err, VLTAppleEventWrapper* event, const char* functionName,
                            const char* notifyText);

  // The server is gone or silent. Only the number counts, also one that the server itself sent.
  virtual bool IsServerDisabled(OSStatus err);
  // The request failed on this side: the reply held no error number.
  virtual bool IsClientError(OSStatus err, VLTAppleEventWrapper* event);

  // Shows a length-prefixed text, which is copied. Always 0.
  virtual OSStatus NotifyServerDisabled(unsigned char* pascalText);
  // One log entry, when failures are logged. Always 0.
  virtual OSStatus LogClientFailure(OSStatus err, const char* functionName);

  // For derived clients. The base has no server, always finds it running, and leaves the address
  // empty; all of these return 0.
  virtual OSStatus GetDestinationAddress(VLTPortDestinationAddress& address);
  virtual OSStatus VerifyServerRunning();  // starts it where settings say so
  virtual OSStatus CheckServerRunning();   // only looks

  // The server answered that it does not know the event: another version.
  virtual bool IsServerError(OSStatus err, VLTAppleEventWrapper* event);

  // Makes the texts, once: names set later do not change them.
  virtual void InitMessages();
  // The text about a server that is gone, or `text`, in one buffer of the object's.
  virtual unsigned char* PrepareNotifyMessage(const char* text);
  // The text about an incompatible server, in the same buffer.
  virtual unsigned char* PrepareProtocolMessage();

  virtual OSStatus ReadFromPreferences();  // derived clients read their settings here

  // The next failure is the first of a run again. 0.
  OSStatus ResetSendFailures();
  // Whether a failure is to be reported now; a first one counts as reported then.
  bool DoNotificationOnFailure();
  // Returns whether only first failures were reported until now.
  bool setReportAllFailures(bool reportAll);
  // Borrowed; null and empty give the default name.
  void setServerName(const char* name);
  void setClientName(const char* name);
  void setPackagename(const char* name);
  // 1/60 s; 0 waits for ever.
  void setSendEventTimeout(UInt32 timeoutTicks);

 protected:
  // The response routine of the notice, on a thread of the platform's choice.
  static void NotifyServerDisabledCompletion(NMRecPtr record);

  static UInt32 sNotificationFlags;  // bit 0: a notice is on screen
  static NMRec sNotificationRecord;  // the one record of all clients' notices

  const char* disabledFormat = "The %s was disabled or removed. Please reinstall the %s.";
  const char* sendErrorFormat = "%s() - Error %ld (%lx) sending message to %s";
  // The spelling is meant.
  const char* incompatibleFormat =
      "The %s is incompatible with the %s. This is probably due to mismatched versions. Please "
      "remove all old verisions of the %s and reinstall.";
  const char* serverName = "Server";
  const char* clientName = "Client";
  const char* packageName = "Package";
  SInt32 syslogPriority = 1028;  // a warning; the bit above it is meant
  bool notifyUser = false;
  bool logFailures = false;
  bool reportFirstFailureOnly = true;
  bool messagesInitialised = false;
  SInt32 sendModeFlags = kAECanInteract + kAECanSwitchLayer + kAEDontRecord;
  SInt32 timeout = 600;   // ticks
  SInt32 retryCount = 1;  // attempts
  char disabledMessage[256] = "";
  char protocolMessage[256] = "";
  Str255 notifyMessage = {};
  bool firstFailurePending = true;
};
