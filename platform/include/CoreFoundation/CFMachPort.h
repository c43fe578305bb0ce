#pragma once

#include <CoreFoundation/CFRunLoop.h>

// A counted object around a receive right. One object per port: asking again for a port's object
// gives the same one. It becomes invalid through CFMachPortInvalidate or when the right is
// destroyed elsewhere; then its run-loop source is invalidated, the invalidation callback runs once
// with the context's info, and no message is delivered any more. Any thread.

using CFMachPortRef = struct __CFMachPort*;

struct CFMachPortContext {
  CFIndex version;  // 0
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
};

// One call per message, in arrival order. `msg` is a mach_msg_header_t, valid for the call only.
using CFMachPortCallBack = void (*)(CFMachPortRef port, void* msg, CFIndex size, void* info);
using CFMachPortInvalidationCallBack = void (*)(CFMachPortRef port, void* info);

#pragma GCC visibility push(default)
extern "C" {

CFTypeID CFMachPortGetTypeID(void);

// A new port with receive and send right under one name. Null on failure. The right is given up
// when the object is destroyed.
CFMachPortRef CFMachPortCreate(CFAllocatorRef allocator, CFMachPortCallBack callout,
                               CFMachPortContext* context, Boolean* shouldFreeInfo);

// The object of `port`, retained when it exists already (then `*shouldFreeInfo` is true and the
// context is ignored). The right stays the caller's.
CFMachPortRef CFMachPortCreateWithPort(CFAllocatorRef allocator, mach_port_t port,
                                       CFMachPortCallBack callout, CFMachPortContext* context,
                                       Boolean* shouldFreeInfo);

mach_port_t CFMachPortGetPort(CFMachPortRef port);  // also after invalidation
void CFMachPortGetContext(CFMachPortRef port, CFMachPortContext* context);
Boolean CFMachPortIsValid(CFMachPortRef port);
void CFMachPortInvalidate(CFMachPortRef port);

// Called once, at invalidation; at once when the port is invalid already. Null removes it.
void CFMachPortSetInvalidationCallBack(CFMachPortRef port, CFMachPortInvalidationCallBack callout);

// The port's version-1 source, retained; the same one while it is valid. Null for an invalid port.
CFRunLoopSourceRef CFMachPortCreateRunLoopSource(CFAllocatorRef allocator, CFMachPortRef port,
                                                 CFIndex order);

}  // extern "C"
#pragma GCC visibility pop
