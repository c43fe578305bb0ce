#pragma once

#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

// The private port that receives the reply to one event. It is part of that event and shares its
// thread rule. Meant: the destructor does not release the port, because that is the caller's step
// (finalizeEvent). A port that is not released costs an entry of the port table, never a file
// descriptor.
class VLTAppleEventReturnAddress {
 public:
  VLTAppleEventReturnAddress() = default;
  VLTAppleEventReturnAddress(const VLTAppleEventReturnAddress&) = delete;
  VLTAppleEventReturnAddress& operator=(const VLTAppleEventReturnAddress&) = delete;
  virtual ~VLTAppleEventReturnAddress() = default;

  OSStatus initialize();  // allocates the port once; returns the kernel's result
  OSStatus finalize();    // releases the port; returns 0

  // Puts the port into the event as its reply port. Returns -1 without a port.
  OSStatus addReturnAddress(AEDesc& event);

 protected:
  mach_port_t replyPort = MACH_PORT_NULL;
  bool allocated = false;  // initialize has run, successfully or not
};
