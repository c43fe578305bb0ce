#include "aeport/destination_address.h"

#include <cstring>

#include <servers/bootstrap.h>

VLTPortDestinationAddress::VLTPortDestinationAddress(const char* name) {
  const size_t length = name != nullptr ? std::strlen(name) : 0;
  if (length < sizeof portName) std::memcpy(portName, name != nullptr ? name : "", length + 1);
}

OSStatus VLTPortDestinationAddress::locatePort() {
  if (portName[0] == 0) return -1;
  mach_port_t bootstrap = MACH_PORT_NULL;
  OSStatus err = task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap);
  if (err == 0) err = bootstrap_look_up(bootstrap, portName, &port);
  return err;
}

OSStatus VLTPortDestinationAddress::initialize() {
  if (located) return 0;
  const OSStatus err = locatePort();
  located = err == 0;
  return err;
}

OSStatus VLTPortDestinationAddress::getDestinationAddress(AEDesc* address) {
  if (!located) return -1;
  return AECreateDesc(typeMachPort, &port, sizeof port, address);
}

OSStatus VLTProcessDestinationAddress::getDestinationAddress(AEDesc* address) {
  const UInt32 words[] = {psn.highLongOfPSN, psn.lowLongOfPSN};
  return AECreateDesc(typeProcessSerialNumber, words, sizeof words, address);
}
