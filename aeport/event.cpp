#include "aeport/event.h"

#include <cstring>
#include <new>

#include <Carbon/Carbon.h>

namespace {

constexpr SInt32 kReplyModeMask = 3;

// Returns the text of a handle as a C string in a new array, or null.
char* NewTextOfHandle(Handle handle) {
  if (handle == nullptr || *handle == nullptr) return nullptr;
  const Size size = GetHandleSize(handle);
  if (size <= 0) return nullptr;
  char* text = new (std::nothrow) char[static_cast<size_t>(size) + 1];
  if (text == nullptr) return nullptr;
  std::memcpy(text, *handle, size);
  text[size] = 0;
  return text;
}

}  // namespace

VLTAppleEventWrapper::VLTAppleEventWrapper(UInt32 theClass, UInt32 theID, SInt32 sendMode,
                                           VLTAppleEventDestinationAddress* address,
                                           SInt16 theReturnID, SInt32 theTransactionID)
    : eventClass(theClass),
      eventID(theID),
      replyMode(sendMode & kReplyModeMask),
      returnID(theReturnID),
      transactionID(theTransactionID),
      destination(address) {}

VLTAppleEventWrapper::~VLTAppleEventWrapper() {
  if (targetCreated) AEDisposeDesc(&target);
  if (eventCreated) AEDisposeDesc(&event);
  if (replyReceived) AEDisposeDesc(&reply);
}

OSStatus VLTAppleEventWrapper::finalizeEvent() { return returnAddress.finalize(); }

OSStatus VLTAppleEventWrapper::createEvent() {
  if (destination == nullptr) return paramErr;
  if (const OSStatus err = returnAddress.initialize(); err != 0) return err;

  OSStatus err = destination->getDestinationAddress(&target);
  targetCreated = err == 0;
  if (err != 0) return err;

  err = AECreateAppleEvent(eventClass, eventID, &target, returnID, transactionID, &event);
  eventCreated = err == 0;
  if (err != 0) return err;

  return returnAddress.addReturnAddress(event);
}

OSStatus VLTAppleEventWrapper::sendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) {
  ForgetReply();
  replyMode &= kReplyModeMask;
  sendMode = (sendMode & ~kReplyModeMask) | replyMode;

  SInt32 result = doSendEvent(sendMode, timeoutTicks, priority);
  if (result != 0 || replyMode == kAENoReply) return result;

  // The server's error number becomes the result. One that is not a long of 4 bytes, also after
  // coercion, counts as 0: part of it would be another number in the other byte order.
  SInt32 number = 0;
  Size size = 0;
  const OSErr err =
      AEGetParamPtr(&reply, keyErrorNumber, typeSInt32, nullptr, &number, sizeof number, &size);
  replyHasError = err != errAEDescNotFound;
  if (err == 0 && size == sizeof number) result = number;
  replyReceived = true;
  return result;
}

void VLTAppleEventWrapper::ForgetReply() {
  if (replyReceived) AEDisposeDesc(&reply);
  replyReceived = false;
  replyHasError = false;
}

AEDesc* VLTAppleEventWrapper::getSndReply() { return replyMode == kAENoReply ? nullptr : &reply; }

void VLTAppleEventWrapper::printDesc(const char*, const AEDesc* desc) {
  char* text = nullptr;
  if (printDescToBufAlloc(desc, text) == 0) delete[] text;
}

OSStatus VLTAppleEventWrapper::printDescToBufAlloc(const AEDesc* desc, char*& buffer) {
  Handle handle = nullptr;
  OSStatus err = AEPrintDescToHandle(desc, &handle);
  if (err == 0) {
    char* text = NewTextOfHandle(handle);
    if (text != nullptr) buffer = text;
    err = text != nullptr ? 0 : memFullErr;
  }
  if (handle != nullptr) DisposeHandle(handle);
  return err;
}

OSStatus VLTAppleEvent::doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16 priority) {
  return AESend(&event, getSndReply(), sendMode, priority, timeoutTicks, nullptr, nullptr);
}

OSStatus VLTPortAppleEvent::doSendEvent(SInt32 sendMode, SInt32 timeoutTicks, SInt16) {
  return AESendMessage(&event, getSndReply(), sendMode, timeoutTicks);
}
