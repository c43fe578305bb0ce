#include "daemon/event_service.h"

#include <new>

#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>

#include "aeport/port_listener.h"

namespace {

VLTPortAEMachPortListener* cmPortAEListener = nullptr;  // owned
bool cmAEHandlerRegistered = false;

}  // namespace

OSStatus installAEHandlers() {
  OSStatus err = memFullErr;
  cmPortAEListener = new (std::nothrow) VLTPortAEMachPortListener;
  if (cmPortAEListener != nullptr) {
    err = cmPortAEListener->ListenOnPort(kSessionDaemonPortName, CFRunLoopGetCurrent(),
                                         SMAEDispatchCallback, nullptr);
  }
  if (err == 0) cmAEHandlerRegistered = true;
  return err;
}

OSStatus removeAEHandlers() {
  delete cmPortAEListener;
  cmPortAEListener = nullptr;
  // Meant: the flag stays set, because the check for a running daemon has to know that this process
  // was the daemon.
  return 0;
}

bool isAEHandlerRegistered() { return cmAEHandlerRegistered; }

bool checkPortRegistered(const char* portName) {
  if (portName == nullptr || portName[0] == 0) return false;
  mach_port_t port = MACH_PORT_NULL;
  const OSStatus err = VLTPortAEMachPortListener::CheckPortRegistered(portName, port);
  return err == 0 && port != MACH_PORT_NULL;
}

OSStatus SMAEDispatchCallback(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                              void*) {
  if (eventClass == kCoreEventClass && eventID == kAEQuitApplication) {
    return AEQuitHandler(event, reply, 0);
  }
  return errAEEventNotHandled;
}

OSErr AEQuitHandler(const AppleEvent*, AppleEvent*, SInt32) {
  QuitApplicationEventLoop();
  return 0;
}
