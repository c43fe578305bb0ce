#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <atomic>
#include <functional>
#include <thread>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// A server and its client in one process: the test's thread serves, a second thread sends.

struct ServedEvent {
  UInt32 eventClass;
  UInt32 eventID;
  const AEDesc* event;
  AEDesc* reply;
};
using EventHandler = std::function<OSStatus(const ServedEvent&)>;

// Puts all parameters of an event into another.
inline OSStatus CopyParameters(const AEDesc* event, AEDesc* other) {
  SInt32 count = 0;
  OSStatus err = AECountItems(event, &count);
  for (SInt32 i = 1; err == 0 && i <= count; ++i) {
    AEKeyword key = 0;
    AEDesc desc = {typeNull, nullptr};
    err = AEGetNthDesc(event, i, typeWildCard, &key, &desc);
    if (err == 0) err = AEPutParamDesc(other, key, &desc);
    AEDisposeDesc(&desc);
  }
  return err;
}

// The dispatch callback whose refcon is an EventHandler.
inline OSStatus CallHandler(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                            void* refcon) {
  return (*static_cast<EventHandler*>(refcon))({eventClass, eventID, event, reply});
}

// The life of a role: serves its port with `handle` until the test kills it.
inline int ServeForEver(TestRole& role, VLTAEDispatchCallback handle, void* refcon = nullptr) {
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), handle, refcon) != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  CFRunLoopRun();
  return RoleFailed();
}

// Runs `client` on a thread of its own and this thread's run loop until it has ended.
inline void ServeWhile(const std::function<void()>& client) {
  std::atomic<bool> done = false;
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  std::thread thread([&] {
    client();
    done = true;
    CFRunLoopStop(loop);
  });
  RunLoopUntil([&] { return done.load(); }, 30s);
  thread.join();
}

// The outcome of a request: the reply's error number as sendEvent returns it.
struct Answer {
  OSStatus status = 0;
  bool hasError = false;
};

// Sends ('test', id) to a port name and waits for the reply.
inline Answer Ask(const std::string& port, UInt32 eventID, SInt32 mode = kAEWaitReply,
                  SInt32 timeoutTicks = 20 * 60) {
  VLTPortDestinationAddress address(port.c_str());
  VLTPortAppleEvent event(FourCC('t', 'e', 's', 't'), eventID, mode, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  Answer answer;
  answer.status = address.initialize();
  if (answer.status == 0) answer.status = event.createEvent();
  if (answer.status == 0) answer.status = event.sendEvent(0, timeoutTicks, kAENormalPriority);
  event.finalizeEvent();
  answer.hasError = event.getReplyHasError();
  return answer;
}

// Ask from a second thread while this one serves.
inline Answer AskServed(const std::string& port, UInt32 eventID, SInt32 mode = kAEWaitReply) {
  Answer answer;
  ServeWhile([&] { answer = Ask(port, eventID, mode); });
  return answer;
}

constexpr UInt32 kPing = FourCC('p', 'i', 'n', 'g');
