#pragma once

#include <atomic>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "aeport/port_name.h"

// Handles one event: class, id, the request, the reply to fill (the null descriptor when the sender
// wants none) and the listener's refcon. Both descriptors are valid until it returns; what is
// needed longer is duplicated. A result other than 0 travels back to the sender as its send's
// result. The listener may be deleted from here.
using VLTAEDispatchCallback = OSStatus (*)(UInt32 eventClass, UInt32 eventID, const AEDesc* event,
                                           AEDesc* reply, void* refcon);

// Reads a decoded event's class, id and whether its sender wants a reply. Each output may be null.
// Returns the first error; outputs after it are not written.
OSStatus VLTGetAEDispatchAttributes(const AEDesc& event, UInt32* eventClass, UInt32* eventID,
                                    UInt8* replyWanted);

// VLTPortAEMachPortListener is a server's end: it owns a named port and hands each event that
// arrives there to one callback, then sends the answer. Whoever installs it owns it and deletes it.
// All calls belong to the thread that runs the run loop it listens on, and the callback runs there,
// one event at a time; the two static look-ups may be called from any thread.
//
// Idle -> ListenOnPort -> listening -> Deallocate or the destructor -> torn down, from which
// ListenOnPort with the same name begins anew. A subclass that overrides PortInvalidated is told of
// a teardown only when it calls Deallocate in its own destructor: in the base destructor the base
// version runs.
class VLTPortAEMachPortListener {
 public:
  VLTPortAEMachPortListener() = default;
  VLTPortAEMachPortListener(const VLTPortAEMachPortListener&) = delete;
  VLTPortAEMachPortListener& operator=(const VLTPortAEMachPortListener&) = delete;
  virtual ~VLTPortAEMachPortListener();

  // Claims `name` (1 to 127 bytes) for this process and receives on it in the default mode of
  // `loop`. Called again with the same name it checks the claim and repairs what has gone stale: a
  // healthy listener is left alone. A listener never changes its name, not even after Deallocate.
  //
  // Result  0; paramErr (bad name, another name than before, null callback: an existing listener
  //         goes on); portInUse (somebody else owns the name); kIOReturnNoResources; the kernel's
  //         and the bootstrap server's codes, BOOTSTRAP_NAME_IN_USE when another process was
  //         faster. After a failure the caller calls Deallocate, or tries again.
  //
  // Beware: a torn-down listener that listens again under a name that another listener of this
  // process holds by now takes the name over, for both see one and the same right.
  virtual OSStatus ListenOnPort(const char* name, CFRunLoopRef loop, VLTAEDispatchCallback callback,
                                void* refcon);

  // One message for `from`, as the run loop delivers it. Ignored unless it is our port's.
  virtual void PortCallback(CFMachPortRef from, void* message, CFIndex size);

  // `invalid` no longer receives: gives its right up if it is the one we registered.
  virtual void PortInvalidated(CFMachPortRef invalid);

  // Gives the port and its name up. Returns `err`, so that a failing caller can clean up and pass
  // its error on. Any number of times.
  OSStatus Deallocate(OSStatus err);

  // The bootstrap server's port, asked for once in the life of the process.
  static OSStatus GetBootstrapPort(mach_port_t& port);

  // The port that is registered under `name`, or MACH_PORT_NULL and paramErr (no name, or more than
  // 127 bytes) or the bootstrap server's code.
  static OSStatus CheckPortRegistered(const char* name, mach_port_t& port);

 protected:
  CFMachPortRef machPort = nullptr;            // owned
  CFRunLoopSourceRef runLoopSource = nullptr;  // owned
  VLTAEDispatchCallback callback = nullptr;
  void* refcon = nullptr;
  mach_port_t port = MACH_PORT_NULL;  // what we registered
  char portName[kVLTPortNameSize] = "";

  static std::atomic<mach_port_t> gBootstrapPort;

 private:
  struct Rights;

  static void _PortCallback(CFMachPortRef from, void* message, CFIndex size, void* info);
  static void _PortInvalidated(CFMachPortRef invalid, void* info);

  OSStatus CheckArguments(const char* name, VLTAEDispatchCallback newCallback) const;
  OSStatus Repair(OSStatus err, const char* name, Rights& rights);
  void DropInvalid(Rights& rights);
  OSStatus CheckNameIsFree(const char* name, Rights& rights);
  OSStatus MakePort(Rights& rights);
  OSStatus MakeSource();
  OSStatus Register(const char* name, const Rights& rights);
};
