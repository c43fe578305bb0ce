#include <cstdio>

#include "aeport/event.h"
#include "aeport/params.h"
#include "greeter.h"
#include "launch/launch.h"
#include "text.h"

// greet NAME: starts the greeter if it does not run, and prints its greeting.

namespace {

// All fields of a launch specification.
constexpr VLTLaunchSpec kGreeter = {
    .launchIfNotFound = true,        // start the server if it does not run
    .launchRetrySleepInterval = 1,   // seconds between two look-ups of a started server
    .launchRetries = 10,             // look-ups of a started server
    .signature = kGreeterSignature,  // CFBundleSignature of the bundle
    .bundleID = kGreeterBundle,      // CFBundleIdentifier of the bundle
    .executablePath = nullptr,       // a path that is tried before any bundle
    .portName = kGreeterPort,        // the port that the server claims
    .prefsDomain = nullptr,          // where administrators may change these values
    .prefsKey = nullptr,             // the dictionary in that domain
    .reserved = 0,
    .launchBySignature = false,  // search for the bundle by its signature
    .launchByBundleID = true,    // search for the bundle by its identifier
    .findBySignature = false,    // find the running server in the process list
    .findByPortName = true,      // find the running server by its port
};

// Sends one event to the greeter and stores its reply's direct object with `get`.
template <class Put, class Get>
OSStatus Ask(UInt32 eventID, Put put, Get get) {
  VLTPortDestinationAddress server(kGreeterPort);
  VLTPortAppleEvent event(kGreeterClass, eventID, kAEWaitReply, &server, kAutoGenerateReturnID,
                          kAnyTransactionID);
  OSStatus err = server.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = put(&event.event);
  if (err == 0) err = event.sendEvent(0, 10 * 60, kAENormalPriority);  // ten seconds
  if (err == 0) err = get(&event.reply);
  event.finalizeEvent();
  return err;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "you";
  std::string greeting;
  SInt32 greetings = 0;
  OSStatus err = VLTLaunch(kGreeter).findAndLaunch();
  if (err == 0) {
    err = Ask(
        kGreetEvent, [&](AEDesc* event) { return PutText(event, kNameKey, name); },
        [&](AEDesc* reply) { return GetText(reply, keyDirectObject, greeting); });
  }
  if (err == 0) {
    err = Ask(
        kCountEvent, [](AEDesc*) { return 0; },
        [&](AEDesc* reply) { return GetAELong(reply, keyDirectObject, &greetings); });
  }
  if (err != 0) {
    std::fprintf(stderr, "greet: error %d\n", static_cast<int>(err));
    return 1;
  }
  std::printf("%s (%d)\n", greeting.c_str(), static_cast<int>(greetings));
}
