#include "aeport/client_support.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include <syslog.h>

#include "util/bootstrap_error.h"
#include "util/first_error.h"
#include "util/notice_post.h"
#include "util/strings.h"

namespace {

constexpr size_t kLogEntrySize = 2048;

const char* NameOr(const char* name, const char* standard) {
  return name != nullptr && name[0] != 0 ? name : standard;
}

// Sleeps the whole second, even if a signal is handled meanwhile.
void SleepOneSecond() {
  std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::seconds(1));
}

const char* Shown(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

constinit UInt32 VLTAEClientSupport::sNotificationFlags = 0;
constinit NMRec VLTAEClientSupport::sNotificationRecord = {nullptr, nmType,  0,       0,       0, 0,
                                                           nullptr, nullptr, nullptr, nullptr, 0};

VLTAEClientSupport::VLTAEClientSupport(const char* server, const char* client, const char* package,
                                       SInt32 modeFlags, SInt32 timeoutTicks, bool notify, bool log,
                                       bool firstFailureOnly)
    : serverName(server),
      clientName(client),
      packageName(package),
      notifyUser(notify),
      logFailures(log),
      reportFirstFailureOnly(firstFailureOnly),
      sendModeFlags(modeFlags),
      timeout(timeoutTicks) {}

OSStatus VLTAEClientSupport::Init() {
  OSStatus err = ReadFromPreferences();
  if (err == 0) err = ResetSendFailures();
  return err;
}

OSStatus VLTAEClientSupport::ReadFromPreferences() { return 0; }
OSStatus VLTAEClientSupport::GetDestinationAddress(VLTPortDestinationAddress&) { return 0; }
OSStatus VLTAEClientSupport::VerifyServerRunning() { return 0; }
OSStatus VLTAEClientSupport::CheckServerRunning() { return 0; }

OSStatus VLTAEClientSupport::ConstructEvent(VLTPortDestinationAddress& address,
                                            VLTAppleEventWrapper& event, bool verify) {
  OSStatus err = verify ? VerifyServerRunning() : CheckServerRunning();
  if (err == 0) err = GetDestinationAddress(address);
  if (err == 0) err = address.initialize();
  event.setDestinationAddress(&address);
  if (err == 0) err = event.createEvent();
  return err;
}

OSStatus VLTAEClientSupport::SendEvent(VLTAppleEventWrapper& event, SInt32 sendMode, int retries,
                                       int timeoutTicks) {
  if (retries <= 0) retries = std::max<SInt32>(retryCount, 1);
  if (timeoutTicks <= 0) timeoutTicks = timeout;
  sendMode =
      static_cast<SInt32>(static_cast<UInt32>(sendMode) + static_cast<UInt32>(sendModeFlags));
  OSStatus err;
  do {
    err = event.sendEvent(sendMode, timeoutTicks, kAENormalPriority);
    if (err == errAETimeout) {
      // Meant: after the last attempt, too, because callers rely on it.
      SleepOneSecond();
      --retries;
    }
  } while (retries > 0 && err == errAETimeout);
  return FirstError(err, event.finalizeEvent());
}

void VLTAEClientSupport::HandleResult(OSStatus err, VLTAppleEventWrapper* event,
                                      const char* functionName, const char* notifyText) {
  if (IsServerDisabled(err)) {
    if (!DoNotificationOnFailure()) return;
    LogClientFailure(err, functionName);
    NotifyServerDisabled(PrepareNotifyMessage(notifyText));
  } else if (IsClientError(err, event)) {
    LogClientFailure(err, functionName);
  } else if (IsServerError(err, event)) {
    LogClientFailure(err, functionName);
    NotifyServerDisabled(PrepareProtocolMessage());
  } else {
    firstFailurePending = true;
  }
}

bool VLTAEClientSupport::IsServerDisabled(OSStatus err) {
  return err == procNotFound || err == errAETimeout || err == connectionInvalid ||
         IsBootstrapError(err);
}

bool VLTAEClientSupport::IsClientError(OSStatus err, VLTAppleEventWrapper* event) {
  return err != 0 && (event == nullptr || !event->getReplyHasError());
}

bool VLTAEClientSupport::IsServerError(OSStatus err, VLTAppleEventWrapper* event) {
  return event != nullptr && event->getReplyHasError() && err == errAEEventNotHandled;
}

OSStatus VLTAEClientSupport::NotifyServerDisabled(unsigned char* pascalText) {
  if (notifyUser) {
    PostNotice(&sNotificationFlags, &sNotificationRecord, pascalText,
               NotifyServerDisabledCompletion);
  }
  return 0;
}

void VLTAEClientSupport::NotifyServerDisabledCompletion(NMRecPtr) {
  NoticeIsDone(&sNotificationFlags);
}

OSStatus VLTAEClientSupport::LogClientFailure(OSStatus err, const char* functionName) {
  if (!logFailures) return 0;
  char entry[kLogEntrySize];
  std::snprintf(entry, sizeof entry, sendErrorFormat, Shown(functionName), static_cast<long>(err),
                static_cast<unsigned long>(static_cast<UInt32>(err)), Shown(serverName));
  syslog(syslogPriority, "%s", entry);
  return 0;
}

void VLTAEClientSupport::InitMessages() {
  if (messagesInitialised) return;
  setServerName(serverName);
  setClientName(clientName);
  setPackagename(packageName);
  std::snprintf(disabledMessage, sizeof disabledMessage, disabledFormat, serverName, packageName);
  std::snprintf(protocolMessage, sizeof protocolMessage, incompatibleFormat, clientName, serverName,
                packageName);
  messagesInitialised = true;
}

unsigned char* VLTAEClientSupport::PrepareNotifyMessage(const char* text) {
  InitMessages();
  return cpstrcpy(notifyMessage, text != nullptr ? text : disabledMessage, sizeof notifyMessage);
}

unsigned char* VLTAEClientSupport::PrepareProtocolMessage() {
  InitMessages();
  return cpstrcpy(notifyMessage, protocolMessage, sizeof notifyMessage);
}

OSStatus VLTAEClientSupport::ResetSendFailures() {
  firstFailurePending = true;
  return 0;
}

bool VLTAEClientSupport::DoNotificationOnFailure() {
  if (!reportFirstFailureOnly) return true;
  const bool isFirst = firstFailurePending;
  firstFailurePending = false;
  return isFirst;
}

bool VLTAEClientSupport::setReportAllFailures(bool reportAll) {
  const bool previous = reportFirstFailureOnly;
  reportFirstFailureOnly = !reportAll;
  return previous;
}

void VLTAEClientSupport::setServerName(const char* name) { serverName = NameOr(name, "Server"); }
void VLTAEClientSupport::setClientName(const char* name) { clientName = NameOr(name, "Client"); }
void VLTAEClientSupport::setPackagename(const char* name) { packageName = NameOr(name, "Package"); }

void VLTAEClientSupport::setSendEventTimeout(UInt32 timeoutTicks) {
  timeout = static_cast<SInt32>(timeoutTicks);
}
