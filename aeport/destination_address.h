#pragma once

#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "aeport/port_name.h"

// Where an event goes. The caller owns the address and keeps it alive as long as the event that
// refers to it; one address serves any number of events, one thread at a time. It borrows its port:
// a copy needs no care, and a destination that has ended is noticed by the send.
class VLTAppleEventDestinationAddress {
 public:
  virtual ~VLTAppleEventDestinationAddress() = default;

  // Finds the destination. Must succeed before getDestinationAddress; harmless when it has.
  virtual OSStatus initialize() = 0;

  // The address as a descriptor, which the caller disposes of.
  virtual OSStatus getDestinationAddress(AEDesc* address) = 0;
};

// A service that listens on a named port.
class VLTPortDestinationAddress : public VLTAppleEventDestinationAddress {
 public:
  VLTPortDestinationAddress() = default;
  // Null and names over 127 bytes count as empty: a name is never cut to another service's.
  explicit VLTPortDestinationAddress(const char* name);

  // Asks the bootstrap server now. -1 without a name; BOOTSTRAP_UNKNOWN_SERVICE when nobody is
  // there; the codes of the kernel.
  OSStatus locatePort();

  // locatePort, until it has succeeded once.
  OSStatus initialize() override;
  OSStatus getDestinationAddress(AEDesc* address) override;  // -1 when not located

 protected:
  mach_port_t port = MACH_PORT_NULL;
  char portName[kVLTPortNameSize] = "";
  bool located = false;
};

// A process, which answers while it runs an application event loop.
class VLTProcessDestinationAddress : public VLTAppleEventDestinationAddress {
 public:
  VLTProcessDestinationAddress() = default;
  explicit VLTProcessDestinationAddress(const ProcessSerialNumber& number) : psn(number) {}

  OSStatus initialize() override { return 0; }
  OSStatus getDestinationAddress(AEDesc* address) override;

 protected:
  ProcessSerialNumber psn = {0, 0};
};
