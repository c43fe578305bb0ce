#include <Carbon/CarbonEvents.h>

#include <CoreFoundation/CFMachPort.h>
#include <CoreServices/AEMach.h>
#include <CoreServices/MacErrors.h>
#include <CoreServices/Processes.h>
#include <servers/bootstrap.h>

#include <atomic>

#include "platform/host/base/guard.h"
#include "platform/host/loop/service_manager.h"
#include "platform/host/loop/thread_loop.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/session/name_registry.h"

namespace {

constinit std::atomic<bool> sQuit{false};

// Replies to every event that is addressed to the process that it is not handled: handlers for such
// events do not exist here.
void ReplyNotHandled(CFMachPortRef, void* message, CFIndex, void*) {
  AppleEvent event, reply;
  auto* header = static_cast<mach_msg_header_t*>(message);
  if (AEDecodeMessage(header, &event, &reply) != 0 || reply.descriptorType == typeNull) return;
  const SInt32 result = errAEEventNotHandled;
  AEPutParamPtr(&reply, keyErrorNumber, typeSInt32, &result, sizeof result);
  AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout);
}

// The port by which other processes reach this one by its serial number while its loop runs. If it
// cannot be made, the loop runs all the same.
class EventPort {
 public:
  EventPort() : port(CFMachPortCreate(kCFAllocatorDefault, ReplyNotHandled, nullptr, nullptr)) {
    source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
    CFRunLoopRef loop = CFRunLoopGetCurrent();
    CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
    ProcessSerialNumber psn;
    // A port that is not served must not get a name.
    if (!CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode)) return;
    if (GetCurrentProcess(&psn) != 0) return;
    HostGuard([&] {
      bootstrap_register(kHostBootstrapPort, HostEventPortName(psn).c_str(),
                         CFMachPortGetPort(port));
    });
  }
  ~EventPort() {
    CFMachPortInvalidate(port);
    CFRelease(source);
    CFRelease(port);
  }
  EventPort(const EventPort&) = delete;
  EventPort& operator=(const EventPort&) = delete;

 private:
  CFMachPortRef port;
  CFRunLoopSourceRef source;
};

}  // namespace

void RunApplicationEventLoop(void) {
  const EventPort eventPort;
  const HostServiceState ready;
  HostRunMainLoopUntil(sQuit);
  sQuit.store(false);
}

void QuitApplicationEventLoop(void) {
  sQuit.store(true, std::memory_order_release);
  CFRunLoopWakeUp(CFRunLoopGetMain());
}
