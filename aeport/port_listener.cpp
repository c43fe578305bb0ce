#include "aeport/port_listener.h"

#include <cstring>

#include <servers/bootstrap.h>

constinit std::atomic<mach_port_t> VLTPortAEMachPortListener::gBootstrapPort{MACH_PORT_NULL};

// The rights that one call of ListenOnPort deals with.
struct VLTPortAEMachPortListener::Rights {
  mach_port_t bootstrap = MACH_PORT_NULL;
  mach_port_t local = MACH_PORT_NULL;   // this listener's receive right
  mach_port_t looked = MACH_PORT_NULL;  // the port that the name leads to
};

namespace {

bool IsPortName(const char* name) {
  return name != nullptr && name[0] != 0 && std::strlen(name) < kVLTPortNameSize;
}

}  // namespace

OSStatus VLTGetAEDispatchAttributes(const AEDesc& event, UInt32* eventClass, UInt32* eventID,
                                    UInt8* replyWanted) {
  OSStatus err = 0;
  if (err == 0 && eventClass != nullptr) {
    err = AEGetAttributePtr(&event, keyEventClassAttr, typeType, nullptr, eventClass,
                            sizeof *eventClass, nullptr);
  }
  if (err == 0 && eventID != nullptr) {
    err = AEGetAttributePtr(&event, keyEventIDAttr, typeType, nullptr, eventID, sizeof *eventID,
                            nullptr);
  }
  if (err == 0 && replyWanted != nullptr) {
    err = AEGetAttributePtr(&event, keyReplyRequestedAttr, typeBoolean, nullptr, replyWanted,
                            sizeof *replyWanted, nullptr);
  }
  return err;
}

VLTPortAEMachPortListener::~VLTPortAEMachPortListener() { Deallocate(0); }

OSStatus VLTPortAEMachPortListener::GetBootstrapPort(mach_port_t& port) {
  port = gBootstrapPort.load(std::memory_order_relaxed);
  if (port != MACH_PORT_NULL) return 0;
  // Racing threads store the same value.
  const OSStatus err = task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &port);
  if (err == 0) gBootstrapPort.store(port, std::memory_order_relaxed);
  return err;
}

OSStatus VLTPortAEMachPortListener::CheckPortRegistered(const char* name, mach_port_t& port) {
  port = MACH_PORT_NULL;
  if (!IsPortName(name)) return paramErr;
  mach_port_t bootstrap = MACH_PORT_NULL;
  const OSStatus err = GetBootstrapPort(bootstrap);
  return err == 0 ? bootstrap_look_up(bootstrap, name, &port) : err;
}

OSStatus VLTPortAEMachPortListener::ListenOnPort(const char* name, CFRunLoopRef loop,
                                                 VLTAEDispatchCallback newCallback,
                                                 void* newRefcon) {
  Rights rights;
  OSStatus err = Repair(CheckArguments(name, newCallback), name, rights);
  if (err == 0 && portName[0] == 0) err = CheckNameIsFree(name, rights);
  if (err == 0 && rights.local == MACH_PORT_NULL) err = MakePort(rights);
  if (err == 0 && runLoopSource == nullptr) err = MakeSource();
  if (err == 0) {
    // Before the name is registered, because an event may arrive at once.
    refcon = newRefcon;
    callback = newCallback;
    err = Register(name, rights);
  }
  if (err == 0 && !CFRunLoopContainsSource(loop, runLoopSource, kCFRunLoopDefaultMode)) {
    CFRunLoopAddSource(loop, runLoopSource, kCFRunLoopDefaultMode);
    // Without a file descriptor for the loop the name would be claimed and never reply.
    const bool isServed = CFRunLoopContainsSource(loop, runLoopSource, kCFRunLoopDefaultMode);
    if (!isServed) err = kIOReturnNoResources;
  }
  return err;
}

OSStatus VLTPortAEMachPortListener::CheckArguments(const char* name,
                                                   VLTAEDispatchCallback newCallback) const {
  if (newCallback == nullptr || !IsPortName(name)) return paramErr;
  return portName[0] == 0 || std::strcmp(name, portName) == 0 ? 0 : paramErr;
}

// Compares this listener's port with the one that the bootstrap server has under its name. If `err`
// is an error, only drops what is invalid. Starts again at most once, because the second round
// finds the name cleared.
OSStatus VLTPortAEMachPortListener::Repair(OSStatus err, const char* name, Rights& rights) {
  for (int round = 0; round < 2; ++round) {
    rights = Rights();
    DropInvalid(rights);
    if (err == 0) err = GetBootstrapPort(rights.bootstrap);
    if (err != 0 || portName[0] == 0) return err;

    const OSStatus found = bootstrap_look_up(rights.bootstrap, portName, &rights.looked);
    if (found != 0 || rights.looked == MACH_PORT_NULL) {
      // A name that is no longer registered is not an error: it is registered again.
      portName[0] = 0;
      rights.looked = MACH_PORT_NULL;
      return 0;
    }
    if (rights.looked == rights.local && std::strcmp(portName, name) == 0) return 0;

    // The name leads to another port: start again without this listener's port.
    err = mach_port_destroy(mach_task_self(), rights.looked);
    if (machPort != nullptr) CFMachPortInvalidate(machPort);
    portName[0] = 0;
    rights.looked = MACH_PORT_NULL;
  }
  return err;
}

void VLTPortAEMachPortListener::DropInvalid(Rights& rights) {
  if (machPort != nullptr && CFMachPortIsValid(machPort)) {
    rights.local = CFMachPortGetPort(machPort);
  } else if (machPort != nullptr) {
    if (runLoopSource != nullptr) CFRunLoopSourceInvalidate(runLoopSource);
    CFRelease(machPort);
    machPort = nullptr;
  }
  if (runLoopSource != nullptr && !CFRunLoopSourceIsValid(runLoopSource)) {
    CFRelease(runLoopSource);
    runLoopSource = nullptr;
  }
}

OSStatus VLTPortAEMachPortListener::CheckNameIsFree(const char* name, Rights& rights) {
  std::memcpy(portName, name, std::strlen(name) + 1);
  if (bootstrap_look_up(rights.bootstrap, portName, &rights.looked) != 0) {
    rights.looked = MACH_PORT_NULL;
  }
  const bool isFree = rights.looked == MACH_PORT_NULL || rights.looked == rights.local;
  return isFree ? 0 : portInUse;
}

OSStatus VLTPortAEMachPortListener::MakePort(Rights& rights) {
  if (machPort == nullptr) {
    CFMachPortContext context = {0, this, nullptr, nullptr, nullptr};
    machPort = CFMachPortCreate(kCFAllocatorDefault, _PortCallback, &context, nullptr);
    if (machPort != nullptr) CFMachPortSetInvalidationCallBack(machPort, _PortInvalidated);
  }
  if (machPort != nullptr) rights.local = CFMachPortGetPort(machPort);
  return rights.local != MACH_PORT_NULL ? 0 : kIOReturnNoResources;
}

OSStatus VLTPortAEMachPortListener::MakeSource() {
  runLoopSource = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, machPort, 0);
  return runLoopSource != nullptr ? 0 : kIOReturnNoResources;
}

OSStatus VLTPortAEMachPortListener::Register(const char* name, const Rights& rights) {
  if (portName != name) std::memmove(portName, name, std::strlen(name) + 1);
  OSStatus err = 0;
  if (rights.looked != rights.local) {
    err = bootstrap_register(rights.bootstrap, portName, rights.local);
  }
  if (err == 0) port = rights.local;
  return err;
}

OSStatus VLTPortAEMachPortListener::Deallocate(OSStatus err) {
  if (CFRunLoopSourceRef source = runLoopSource; source != nullptr) {
    runLoopSource = nullptr;
    CFRunLoopSourceInvalidate(source);
    CFRelease(source);
  }
  if (CFMachPortRef old = machPort; old != nullptr) {
    machPort = nullptr;
    CFMachPortInvalidate(old);  // runs PortInvalidated
    mach_port_t nobody = MACH_PORT_NULL;
    CheckPortRegistered(portName, nobody);
    CFRelease(old);
  }
  return err;
}

void VLTPortAEMachPortListener::PortCallback(CFMachPortRef from, void* message, CFIndex) {
  if (from != machPort) return;
  // The callback may delete this object, so no member is used after the call.
  const VLTAEDispatchCallback dispatch = callback;
  void* const context = refcon;

  AEDesc event = {typeNull, nullptr};
  AEDesc reply = {typeNull, nullptr};
  UInt32 eventClass = 0;
  UInt32 eventID = 0;
  UInt8 replyWanted = 0;
  SInt32 result = errAEEventNotHandled;

  OSStatus err = AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &event, &reply);
  if (err == 0) err = VLTGetAEDispatchAttributes(event, &eventClass, &eventID, &replyWanted);
  if (err != 0) return;  // without a decoded event there is no address for a reply

  if (dispatch != nullptr) result = dispatch(eventClass, eventID, &event, &reply, context);
  if (replyWanted) {
    if (result != 0) AEPutParamPtr(&reply, keyErrorNumber, typeSInt32, &result, sizeof result);
    AESendMessage(&reply, nullptr, kAENoReply,
                  kAEDefaultTimeout);  // a sender that has ended is not an error
  }
  // Meant: neither descriptor is disposed of, because both belong to the message.
}

void VLTPortAEMachPortListener::PortInvalidated(CFMachPortRef invalid) {
  if (invalid == nullptr || port == MACH_PORT_NULL || CFMachPortGetPort(invalid) != port) return;
  mach_port_destroy(mach_task_self(), port);
  port = MACH_PORT_NULL;
}

void VLTPortAEMachPortListener::_PortCallback(CFMachPortRef from, void* message, CFIndex size,
                                              void* info) {
  if (info == nullptr) return;
  static_cast<VLTPortAEMachPortListener*>(info)->PortCallback(from, message, size);
}

void VLTPortAEMachPortListener::_PortInvalidated(CFMachPortRef invalid, void* info) {
  if (info == nullptr) return;
  static_cast<VLTPortAEMachPortListener*>(info)->PortInvalidated(invalid);
}
