#pragma once

#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "aeport/port_name.h"

// The destination of events. The caller owns the address and keeps it alive as long as any event
// that refers to it. An address may serve several events, but only one thread at a time. It does
// not own its port, so it may be copied; if the server has ended, sending the event fails.
class VLTAppleEventDestinationAddress {
 public:
  virtual ~VLTAppleEventDestinationAddress() = default;

  // Finds the destination. Must succeed before getDestinationAddress is called; may be repeated.
  virtual OSStatus initialize() = 0;

  // Stores the address as a descriptor, which the caller disposes of.
  virtual OSStatus getDestinationAddress(AEDesc* address) = 0;
};

// A server that listens on a named port.
class VLTPortDestinationAddress : public VLTAppleEventDestinationAddress {
 public:
  VLTPortDestinationAddress() = default;
  // A null name and a name over 127 bytes count as empty: a name is never cut, because that could
  // make it another server's.
  explicit VLTPortDestinationAddress(const char* name);

  // Looks the name up now. Returns 0; -1 if the name is empty; BOOTSTRAP_UNKNOWN_SERVICE if no
  // process owns it; or the kernel's error.
  OSStatus locatePort();

  // Calls locatePort unless that has succeeded before.
  OSStatus initialize() override;
  OSStatus getDestinationAddress(AEDesc* address) override;  // -1 unless located

 protected:
  mach_port_t port = MACH_PORT_NULL;
  char portName[kVLTPortNameSize] = "";
  bool located = false;
};

// A process, which replies while it runs an application event loop.
class VLTProcessDestinationAddress : public VLTAppleEventDestinationAddress {
 public:
  VLTProcessDestinationAddress() = default;
  explicit VLTProcessDestinationAddress(const ProcessSerialNumber& number) : psn(number) {}

  OSStatus initialize() override { return 0; }
  OSStatus getDestinationAddress(AEDesc* address) override;

 protected:
  ProcessSerialNumber psn = {0, 0};
};
