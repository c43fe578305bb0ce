#pragma once

#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

// The private port to which one event's reply comes back. Part of its event. The destructor does
// not give the port up: finalize does. That is meant, and costs a port-table entry at most, never a
// descriptor.
class VLTAppleEventReturnAddress {
 public:
  VLTAppleEventReturnAddress() = default;
  VLTAppleEventReturnAddress(const VLTAppleEventReturnAddress&) = delete;
  VLTAppleEventReturnAddress& operator=(const VLTAppleEventReturnAddress&) = delete;
  virtual ~VLTAppleEventReturnAddress() = default;

  OSStatus initialize();  // allocates the port, once; the kernel's result
  OSStatus finalize();    // gives the port up; always 0

  // Names the port in the event. -1 when there is none.
  OSStatus addReturnAddress(AEDesc& event);

 protected:
  mach_port_t replyPort = MACH_PORT_NULL;
  bool allocated = false;  // initialize has run, whatever came of it
};
