#pragma once

#include <CoreServices/CoreServices.h>

// The daemon's event service: a listener on the daemon's port, and the event handlers. Main thread
// only; the listener uses its run loop.

// The session daemon's port name. Only one process of a session can own it, so there is only one
// session daemon in each session.
constexpr char kSessionDaemonPortName[] = "com.veltrane.vltsessiond.1.1";

// Opens the service on the calling thread's run loop. Returns memFullErr when memory runs out,
// otherwise the result of claiming the port (ListenOnPort). Call removeAEHandlers also after a
// failure. Do not call it twice.
OSStatus installAEHandlers();

// Closes the service and releases the port. Does nothing if there is no service. Returns 0.
OSStatus removeAEHandlers();

// Returns true if this process has ever opened the service, also after the service was closed.
bool isAEHandlerRegistered();

// Returns true if a process owns the port name. Returns false for a null or empty name and for any
// error.
bool checkPortRegistered(const char* portName);

// Calls the handler of an event, or returns errAEEventNotHandled if there is none.
OSStatus SMAEDispatchCallback(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                              void* refcon);

// Ends the application event loop, from any sender. The reply is sent before the loop ends. Returns
// 0.
OSErr AEQuitHandler(const AppleEvent* event, AppleEvent* reply, SInt32 refcon);
