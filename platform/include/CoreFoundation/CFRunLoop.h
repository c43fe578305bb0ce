#pragma once

#include <CoreFoundation/CFBase.h>
#include <mach/mach.h>

// Run loops: one for each thread, made on first use, gone with the thread. A loop blocks until a
// source of the mode it runs in has work; an idle loop makes no wake-ups. Adding, removing,
// signalling, invalidating and waking may be done from any thread. Callouts run on the loop's
// thread with no lock held, so they may do all of these, run the loop again (nested), or throw:
// an exception passes through to the caller of the run.

using CFRunLoopRef = struct __CFRunLoop*;
using CFRunLoopSourceRef = struct __CFRunLoopSource*;
using CFRunLoopTimerRef = struct __CFRunLoopTimer*;

enum : SInt32 {
  kCFRunLoopRunFinished = 1,
  kCFRunLoopRunStopped = 2,
  kCFRunLoopRunTimedOut = 3,
  kCFRunLoopRunHandledSource = 4,
};

// Both records are copied. All functions may be null; `retain` and `release` keep `info`.
struct CFRunLoopSourceContext {
  CFIndex version;  // 0
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
  Boolean (*equal)(const void* a, const void* b);
  CFHashCode (*hash)(const void* info);
  void (*schedule)(void* info, CFRunLoopRef loop, CFStringRef mode);
  void (*cancel)(void* info, CFRunLoopRef loop, CFStringRef mode);
  void (*perform)(void* info);
};

struct CFRunLoopSourceContext1 {
  CFIndex version;  // 1
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
  Boolean (*equal)(const void* a, const void* b);
  CFHashCode (*hash)(const void* info);
  mach_port_t (*getPort)(void* info);
  // One message; `msg` is a mach_msg_header_t, valid for the call. The result is not used.
  void* (*perform)(void* msg, CFIndex size, CFAllocatorRef allocator, void* info);
};

struct CFRunLoopTimerContext {
  CFIndex version;  // 0
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
};
using CFRunLoopTimerCallBack = void (*)(CFRunLoopTimerRef timer, void* info);

#pragma GCC visibility push(default)
extern "C" {

extern const CFStringRef kCFRunLoopDefaultMode;
extern const CFStringRef kCFRunLoopCommonModes;  // for adding only: every common mode

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void);  // wall clock

CFTypeID CFRunLoopGetTypeID(void);
CFRunLoopRef CFRunLoopGetCurrent(void);  // borrowed; null without memory or file descriptors
CFRunLoopRef CFRunLoopGetMain(void);     // borrowed; the main thread's
void CFRunLoopAddCommonMode(CFRunLoopRef loop, CFStringRef mode);

// Runs the calling thread's loop in the default mode until CFRunLoopStop, or until the mode holds
// neither sources nor timers.
void CFRunLoopRun(void);

// Runs at most `seconds` (0: one pass without waiting). An empty mode is finished at once. A stop
// that was sent before the run ends it before its first callout.
SInt32 CFRunLoopRunInMode(CFStringRef mode, CFTimeInterval seconds,
                          Boolean returnAfterSourceHandled);

void CFRunLoopStop(CFRunLoopRef loop);    // ends the innermost run; kept until the next run if none
void CFRunLoopWakeUp(CFRunLoopRef loop);  // one pass; remembered while the loop is awake
Boolean CFRunLoopIsWaiting(CFRunLoopRef loop);

void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFStringRef mode);
void CFRunLoopRemoveSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFStringRef mode);
Boolean CFRunLoopContainsSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFStringRef mode);
void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFStringRef mode);
void CFRunLoopRemoveTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFStringRef mode);
Boolean CFRunLoopContainsTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFStringRef mode);

// `context` is a CFRunLoopSourceContext or, by its version, a CFRunLoopSourceContext1. Lower order
// first. Null for another version.
CFTypeID CFRunLoopSourceGetTypeID(void);
CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef allocator, CFIndex order,
                                         CFRunLoopSourceContext* context);
CFIndex CFRunLoopSourceGetOrder(CFRunLoopSourceRef source);
void CFRunLoopSourceGetContext(CFRunLoopSourceRef source, CFRunLoopSourceContext* context);
// Version 0: marks the source; does not wake the loop. Several signals before a pass give one call.
void CFRunLoopSourceSignal(CFRunLoopSourceRef source);
// Leaves every loop and mode (`cancel` is called for each); never fires again. A callout that is
// running on another thread is not waited for.
void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source);
Boolean CFRunLoopSourceIsValid(CFRunLoopSourceRef source);

// `fireDate` is turned into the monotonic clock once, at creation: later steps of the wall clock do
// not matter. `interval` <= 0 fires once and invalidates. Missed intervals are skipped.
CFTypeID CFRunLoopTimerGetTypeID(void);
CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                       CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* context);
void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer);
Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer);

}  // extern "C"
#pragma GCC visibility pop
