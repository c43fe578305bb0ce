#pragma once

#include <atomic>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "aeport/port_name.h"

// Handles one event. Gets its class and id, the request, the reply to fill (the null descriptor if
// the sender does not want a reply) and the listener's refcon. Both descriptors are valid until the
// callback returns; duplicate one to keep it longer. If the callback returns a number other than 0,
// the sender's call returns it, too. The callback may delete the listener.
using VLTAEDispatchCallback = OSStatus (*)(UInt32 eventClass, UInt32 eventID, const AEDesc* event,
                                           AEDesc* reply, void* refcon);

// Reads a decoded event's class and id, and whether its sender wants a reply. Each output may be
// null. Returns the first error and leaves the outputs after it alone.
OSStatus VLTGetAEDispatchAttributes(const AEDesc& event, UInt32* eventClass, UInt32* eventID,
                                    UInt8* replyWanted);

// VLTPortAEMachPortListener is the server's side of a port. It owns a named port, passes each event
// that arrives there to one callback, and sends the reply. The program that creates it deletes it.
// Call it only on the thread that runs its run loop; the callback runs there, too, one event at a
// time. The two static look-ups may be called from any thread.
//
// ListenOnPort makes an idle listener listen. Deallocate and the destructor end that; afterwards
// ListenOnPort with the same name starts it again. A subclass that overrides PortInvalidated and
// wants to be called at the end has to call Deallocate in its own destructor, because the base
// destructor calls the base version.
class VLTPortAEMachPortListener {
 public:
  VLTPortAEMachPortListener() = default;
  VLTPortAEMachPortListener(const VLTPortAEMachPortListener&) = delete;
  VLTPortAEMachPortListener& operator=(const VLTPortAEMachPortListener&) = delete;
  virtual ~VLTPortAEMachPortListener();

  // Claims `name` (1 to 127 bytes) for this process and receives events on it in the default mode
  // of `loop`. Called again with the same name, it checks the claim and repairs what has become
  // invalid; a healthy listener stays as it is. A listener never changes its name, not even after
  // Deallocate.
  //
  // Result  0; paramErr (bad name, another name than before, or null callback: a listener that
  //         listens goes on); portInUse (another owner has the name); kIOReturnNoResources; the
  //         errors of the kernel and the bootstrap server, for example BOOTSTRAP_NAME_IN_USE if
  //         another process claimed the name first. After a failure call Deallocate, or try again.
  //
  // Meant: if a deallocated listener listens again under a name that another listener of this
  // process owns by then, it takes the name over, because both use the same right.
  virtual OSStatus ListenOnPort(const char* name, CFRunLoopRef loop, VLTAEDispatchCallback callback,
                                void* refcon);

  // Handles one message for `from`, as the run loop delivers it. Ignores it unless `from` is this
  // listener's port.
  virtual void PortCallback(CFMachPortRef from, void* message, CFIndex size);

  // Called when `invalid` no longer receives. Destroys its right if this listener registered it.
  virtual void PortInvalidated(CFMachPortRef invalid);

  // Releases the port and its name. Returns `err`, so that a caller can clean up after an error and
  // return it. May be repeated.
  OSStatus Deallocate(OSStatus err);

  // Stores the bootstrap server's port, which a process gets from the kernel only once.
  static OSStatus GetBootstrapPort(mach_port_t& port);

  // Stores the port that is registered under `name` and returns 0. Otherwise stores MACH_PORT_NULL
  // and returns paramErr (no name, or more than 127 bytes) or the bootstrap server's error.
  static OSStatus CheckPortRegistered(const char* name, mach_port_t& port);

 protected:
  CFMachPortRef machPort = nullptr;            // owned
  CFRunLoopSourceRef runLoopSource = nullptr;  // owned
  VLTAEDispatchCallback callback = nullptr;
  void* refcon = nullptr;
  mach_port_t port = MACH_PORT_NULL;  // the right that was registered
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
