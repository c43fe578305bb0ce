#pragma once

#include <CoreServices/CoreServices.h>

// The daemon's event service: one listener on the daemon's port and the handlers behind it. All on
// the main thread, whose run loop it uses; nothing here is locked.

// Where the session daemon is reached. One daemon of a session owns it, and that is what makes it
// the only one.
constexpr char kSessionDaemonPortName[] = "com.veltrane.vltsessiond.1.1";

// Opens the service on the calling thread's run loop. memFullErr without memory, else what claiming
// the port said. After a failure removeAEHandlers tidies up. Not to be called twice.
OSStatus installAEHandlers();

// Closes the service and gives the port up. Always 0; harmless when there is no service.
OSStatus removeAEHandlers();

// Whether the service has ever been opened by this process: it stays true after the service closed.
bool isAEHandlerRegistered();

// Whether somebody listens under `portName`. False for a null or empty name and for any error.
bool checkPortRegistered(const char* portName);

// Routes one event to its handler; errAEEventNotHandled for those that nobody handles.
OSStatus SMAEDispatchCallback(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                              void* refcon);

// Ends the application event loop, whoever asks. The answer leaves before the loop ends. 0.
OSErr AEQuitHandler(const AppleEvent* event, AppleEvent* reply, SInt32 refcon);
