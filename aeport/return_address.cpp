#include "aeport/return_address.h"

OSStatus VLTAppleEventReturnAddress::initialize() {
  if (allocated) return 0;
  const OSStatus err = mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &replyPort);
  allocated = true;
  return err;
}

OSStatus VLTAppleEventReturnAddress::finalize() {
  if (!allocated || replyPort == MACH_PORT_NULL) return 0;
  mach_port_destroy(mach_task_self(), replyPort);
  replyPort = MACH_PORT_NULL;
  allocated = false;
  return 0;
}

OSStatus VLTAppleEventReturnAddress::addReturnAddress(AEDesc& event) {
  if (!allocated || replyPort == MACH_PORT_NULL) return -1;
  return AEPutAttributePtr(&event, keyReplyPortAttr, typeMachPort, &replyPort, sizeof replyPort);
}
