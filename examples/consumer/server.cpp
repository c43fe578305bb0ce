#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>

#include "aeport/params.h"
#include "aeport/port_listener.h"
#include "greeter.h"
#include "greeting.h"
#include "text.h"

// The greeter: a server with two events of its own.

namespace {

struct Greeter {
  SInt32 greetings = 0;
};

OSStatus Greet(Greeter& greeter, const AEDesc* event, AEDesc* reply) {
  std::string name;
  const OSStatus err = GetText(event, kNameKey, name);
  if (err != 0) return err;
  ++greeter.greetings;
  return PutText(reply, keyDirectObject, Greeting(name));
}

// Called for one event at a time, on the thread that runs the loop.
OSStatus HandleEvent(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                     void* refcon) {
  Greeter& greeter = *static_cast<Greeter*>(refcon);
  if (eventClass == kCoreEventClass && eventID == kAEQuitApplication) {
    QuitApplicationEventLoop();
    return 0;
  }
  if (eventClass != kGreeterClass) return errAEEventNotHandled;
  if (eventID == kGreetEvent) return Greet(greeter, event, reply);
  if (eventID == kCountEvent) return PutAELong(reply, keyDirectObject, &greeter.greetings);
  return errAEEventNotHandled;
}

}  // namespace

int main() {
  Greeter greeter;
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(kGreeterPort, CFRunLoopGetCurrent(), HandleEvent, &greeter) != 0)
    return 1;
  RunApplicationEventLoop();
}
