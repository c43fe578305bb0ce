#pragma once

#include <CoreFoundation/CFRunLoop.h>

// A counted object for a receive right. A port has one such object at a time, which every call for
// the port returns. It becomes invalid by CFMachPortInvalidate or when the right is destroyed. Then
// its run-loop source is invalidated, the invalidation callback runs once with the context's info,
// and no more messages are delivered. The context's callbacks run without a lock. Any thread.

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

// Makes a port with a receive right and a send right of the same number, and its object. Returns
// null after a failure. The rights are given up when the object is destroyed.
CFMachPortRef CFMachPortCreate(CFAllocatorRef allocator, CFMachPortCallBack callout,
                               CFMachPortContext* context, Boolean* shouldFreeInfo);

// Returns the object of `port`, whose right still belongs to the caller. If the object exists
// already, retains it, sets `*shouldFreeInfo` to true and ignores the context.
CFMachPortRef CFMachPortCreateWithPort(CFAllocatorRef allocator, mach_port_t port,
                                       CFMachPortCallBack callout, CFMachPortContext* context,
                                       Boolean* shouldFreeInfo);

mach_port_t CFMachPortGetPort(CFMachPortRef port);  // also after invalidation
void CFMachPortGetContext(CFMachPortRef port, CFMachPortContext* context);
Boolean CFMachPortIsValid(CFMachPortRef port);
void CFMachPortInvalidate(CFMachPortRef port);

// Sets the callback, which is called once, when the port becomes invalid, or at once if it is
// invalid already. Null removes the callback.
void CFMachPortSetInvalidationCallBack(CFMachPortRef port, CFMachPortInvalidationCallBack callout);

// Returns the port's version-1 source, retained: the same one as long as it is valid. Returns null
// for an invalid port.
CFRunLoopSourceRef CFMachPortCreateRunLoopSource(CFAllocatorRef allocator, CFMachPortRef port,
                                                 CFIndex order);

}  // extern "C"
#pragma GCC visibility pop
