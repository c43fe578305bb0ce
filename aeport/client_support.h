#pragma once

#include <Carbon/Carbon.h>

#include "aeport/destination_address.h"
#include "aeport/event.h"

// VLTAEClientSupport is the base class of the clients of the package's daemons. It prepares a
// request, sends it with the package's send mode, time-out and retries, and reports failures. A
// server that is gone is logged and shown to the user, once per run of failures. A server that does
// not know the request is logged and shown as incompatible. A failure on the client's side is only
// logged.
//
// A request takes these steps: construct an address and a VLTPortAppleEvent without destination,
// ConstructEvent, put parameters into the event, SendEvent, read the reply, HandleResult. Call
// HandleResult after a success, too, because it ends a run of failures.
//
// Only one thread at a time may use an object. Notices and their state belong to the process and
// may be used from any thread. An object may be destroyed while its notice is on screen.
class VLTAEClientSupport {
 public:
  VLTAEClientSupport() = default;

  // The names are borrowed and must outlive the object. Null and empty names become "Server",
  // "Client" and "Package" when the first message is made.
  //
  // sendModeFlags  added to every send mode
  // timeoutTicks   the default time-out of SendEvent in 1/60 s; 0 waits for ever
  // notifyUser     show notices
  // logFailures    write failures to the system log
  // reportFirstFailureOnly  while the server is gone, report only the first failure; the next
  //                request that gets through ends the run
  VLTAEClientSupport(const char* serverName, const char* clientName, const char* packageName,
                     SInt32 sendModeFlags, SInt32 timeoutTicks, bool notifyUser, bool logFailures,
                     bool reportFirstFailureOnly);
  VLTAEClientSupport(const VLTAEClientSupport&) = delete;
  VLTAEClientSupport& operator=(const VLTAEClientSupport&) = delete;
  virtual ~VLTAEClientSupport() = default;

  // Calls ReadFromPreferences and then ResetSendFailures. Returns the error of the first.
  virtual OSStatus Init();

  // Sends the event and releases its reply port. After each time-out, sleeps for one second and, if
  // attempts are left, sends again.
  //
  // sendMode      the object's own flags are added to it
  // retries       the number of attempts; 0 or less: the object's own number, at least one
  // timeoutTicks  for each attempt, in 1/60 s; 0 or less: the object's own time-out
  // Result        the error of the last attempt (sendEvent), else that of releasing the port
  virtual OSStatus SendEvent(VLTAppleEventWrapper& event, SInt32 sendMode, int retries,
                             int timeoutTicks);

  // Starts the server if it does not run (`verify`) or only checks that it runs, looks it up, and
  // creates the event for it. The event refers to `address`, which must outlive it, even if this
  // fails. Returns the first error; -1 if GetDestinationAddress has stored no port name.
  virtual OSStatus ConstructEvent(VLTPortDestinationAddress& address, VLTAppleEventWrapper& event,
                                  bool verify);

  // Reports how a request ended. A null `event` is treated like an event whose reply held no error
  // number. `functionName` is the request's name in the log. A `notifyText` that is not null
  // replaces the text about a server that is gone.
  virtual void HandleResult(OSStatus err, VLTAppleEventWrapper* event, const char* functionName,
                            const char* notifyText);

  // Returns true if the error means that the server is gone or does not reply. Only the number
  // counts, even if the server itself sent it.
  virtual bool IsServerDisabled(OSStatus err);
  // Returns true if the request failed and no reply with an error number arrived.
  virtual bool IsClientError(OSStatus err, VLTAppleEventWrapper* event);

  // Shows a length-prefixed text, which is copied. Returns 0.
  virtual OSStatus NotifyServerDisabled(unsigned char* pascalText);
  // Writes a log entry if failures are logged. Returns 0.
  virtual OSStatus LogClientFailure(OSStatus err, const char* functionName);

  // For derived classes. The versions of the base class do nothing and return 0, so the address
  // stays empty.
  virtual OSStatus GetDestinationAddress(VLTPortDestinationAddress& address);
  virtual OSStatus
  VerifyServerRunning();                  // starts the server if it does not run and may be started
  virtual OSStatus CheckServerRunning();  // never starts it

  // Returns true if the server replied that it does not handle the event: it has another version.
  virtual bool IsServerError(OSStatus err, VLTAppleEventWrapper* event);

  // Makes the texts once; names that are set later do not change them.
  virtual void InitMessages();
  // Puts the text about a server that is gone, or `text` if it is not null, into the object's
  // buffer and returns that.
  virtual unsigned char* PrepareNotifyMessage(const char* text);
  // Puts the text about an incompatible server into the same buffer.
  virtual unsigned char* PrepareProtocolMessage();

  virtual OSStatus ReadFromPreferences();  // derived classes read their settings here

  // Makes the next failure the first of a run. Returns 0.
  OSStatus ResetSendFailures();
  // Returns whether to report a failure now. The first failure of a run counts as reported then.
  bool DoNotificationOnFailure();
  // Returns true if only first failures were reported so far.
  bool setReportAllFailures(bool reportAll);
  // The names are borrowed. Null and empty names give the default name.
  void setServerName(const char* name);
  void setClientName(const char* name);
  void setPackagename(const char* name);
  // In 1/60 s; 0 waits for ever.
  void setSendEventTimeout(UInt32 timeoutTicks);

 protected:
  // The response routine of the notice; the platform calls it on any thread.
  static void NotifyServerDisabledCompletion(NMRecPtr record);

  static UInt32 sNotificationFlags;  // bit 0: a notice is on screen
  static NMRec sNotificationRecord;  // the one record of all clients' notices

  const char* disabledFormat = "The %s was disabled or removed. Please reinstall the %s.";
  const char* sendErrorFormat = "%s() - Error %ld (%lx) sending message to %s";
  // Meant: "verisions", because callers rely on the exact text.
  const char* incompatibleFormat =
      "The %s is incompatible with the %s. This is probably due to mismatched versions. Please "
      "remove all old verisions of the %s and reinstall.";
  const char* serverName = "Server";
  const char* clientName = "Client";
  const char* packageName = "Package";
  // Meant: LOG_WARNING (4) plus 0x400, a bit outside level and facility that the log drops, because
  // callers rely on the number.
  SInt32 syslogPriority = 1028;
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
