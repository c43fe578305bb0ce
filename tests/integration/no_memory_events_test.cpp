#include <gtest/gtest.h>
#include <servers/bootstrap.h>

#include <string_view>
#include <vector>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "platform/host/base/guard.h"
#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/events/storage.h"
#include "platform/host/ports/introspect.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/wire/frame.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"

// What one thread does with events, ports and run loops while an allocation fails.

namespace {

constexpr AEEventClass kClass = FourCC('t', 'e', 's', 't');
constexpr AEEventID kEchoID = FourCC('e', 'c', 'h', 'o');
constexpr AEKeyword kText = FourCC('t', 'e', 'x', 't');
constexpr AEKeyword kList = FourCC('l', 'i', 's', 't');
constexpr AEKeyword kRecord = FourCC('r', 'e', 'c', 'o');

OSStatus PutText(AEDesc* to, AEKeyword key, std::string_view text) {
  return AEPutParamPtr(to, key, typeChar, text.data(), static_cast<Size>(text.size()));
}

// An event with values of every kind: small, large, in a list and in a record.
OSStatus BuildEvent(const AEDesc* address, AppleEvent* event) {
  static const std::string kLong(5000, 'x');
  AEDesc list = {typeNull, nullptr};
  AEDesc record = {typeNull, nullptr};
  const SInt32 number = 7;
  OSStatus err =
      AECreateAppleEvent(kClass, kEchoID, address, kAutoGenerateReturnID, kAnyTransactionID, event);
  if (err == 0) err = AECreateList(nullptr, 0, false, &list);
  for (int i = 1; err == 0 && i < 20; i++) err = AEPutPtr(&list, 0, typeChar, kLong.data(), 60);
  if (err == 0) err = AECreateList(nullptr, 0, true, &record);
  if (err == 0) err = PutText(&record, kText, "a text that is longer than what fits inline");
  if (err == 0) err = AEPutKeyPtr(&record, kList, typeSInt32, &number, sizeof number);
  if (err == 0) err = AEPutParamDesc(event, kList, &list);
  if (err == 0) err = AEPutParamDesc(event, kRecord, &record);
  if (err == 0) err = PutText(event, kText, kLong);
  AEDisposeDesc(&list);
  AEDisposeDesc(&record);
  if (err != 0) AEDisposeDesc(event);
  return err;
}

AEDesc NoAddress() {
  AEDesc address = {typeNull, nullptr};
  const ProcessSerialNumber self = {0, kCurrentProcess};
  AECreateDesc(typeProcessSerialNumber, &self, sizeof self, &address);
  return address;
}

// Values, and what only events and ports hold besides.
class EventsWithoutMemory : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(descriptors, HostCountDescs());
    EXPECT_EQ(ports, HostCountPorts().portNames);
  }

  OpenDescriptorCheck noLeaks;
  const size_t descriptors = HostCountDescs();
  const size_t ports = HostCountPorts().portNames;
};

TEST_F(EventsWithoutMemory, BuildingCopyingAndCoercing) {
  AEDesc address = NoAddress();
  SweepAllocations({"build an event",
                    [&] {
                      AppleEvent event = {typeNull, nullptr};
                      const OSStatus err = BuildEvent(&address, &event);
                      AEDisposeDesc(&event);
                      return err;
                    },
                    {memFullErr}});
  AppleEvent event = {typeNull, nullptr};
  ASSERT_EQ(0, BuildEvent(&address, &event));
  SweepAllocations({"duplicate an event",
                    [&] {
                      AppleEvent copy = {typeNull, nullptr};
                      const OSStatus err = AEDuplicateDesc(&event, &copy);
                      AEDisposeDesc(&copy);
                      return err;
                    },
                    {memFullErr}});
  SweepAllocations({"coerce and print",
                    [&] {
                      AEDesc number = {typeNull, nullptr};
                      AEDesc text = {typeNull, nullptr};
                      Handle printed = nullptr;
                      OSStatus err = AEPrintDescToHandle(&event, &printed);
                      if (err == 0) err = AEGetParamDesc(&event, kText, typeWildCard, &text);
                      if (err == 0) err = AEGetParamDesc(&event, kList, typeAEList, &number);
                      if (printed != nullptr) DisposeHandle(printed);
                      AEDisposeDesc(&text);
                      AEDisposeDesc(&number);
                      return err;
                    },
                    {memFullErr}});
  AEDisposeDesc(&event);
  AEDisposeDesc(&address);
}

TEST_F(EventsWithoutMemory, FlatteningAndDecoding) {
  AEDesc address = NoAddress();
  AppleEvent event = {typeNull, nullptr};
  ASSERT_EQ(0, BuildEvent(&address, &event));
  SweepAllocations({"flatten",
                    [&] {
                      HostGather gather;
                      return HostFlattenEvent(&event, gather);
                    },
                    {memFullErr}});
  SweepAllocations({"flatten and decode",
                    [&] {
                      HostGather gather;
                      AppleEvent decoded = {typeNull, nullptr};
                      OSStatus err = HostFlattenEvent(&event, gather);
                      HostFrameSlice body;
                      if (err == 0) body = HostCopyFrameBody(gather);
                      if (err == 0 && !body.owner) err = memFullErr;
                      if (err == 0) err = HostDecodeEvent(std::move(body), &decoded);
                      EXPECT_TRUE(err == 0 || decoded.descriptorType == typeNull);
                      AEDisposeDesc(&decoded);
                      return err;
                    },
                    {memFullErr}});
  AEDisposeDesc(&event);
  AEDisposeDesc(&address);
}

// A source and a timer: made, added, and gone again whatever had failed.
TEST_F(EventsWithoutMemory, SourcesAndTimersComeAndGo) {
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  SweepAllocations(
      {"source and timer",
       [loop] {
         CFRunLoopSourceContext context = {};
         CFRunLoopSourceRef source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
         CFRunLoopTimerRef timer =
             CFRunLoopTimerCreate(kCFAllocatorDefault, 1e10, 0, 0, 0, nullptr, nullptr);
         CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
         CFRunLoopAddSource(loop, source, kCFRunLoopCommonModes);
         CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
         const bool isAdded = CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode) &&
                              CFRunLoopContainsTimer(loop, timer, kCFRunLoopDefaultMode);
         CFRunLoopRemoveSource(loop, source, kCFRunLoopCommonModes);
         CFRunLoopSourceInvalidate(source);
         CFRunLoopRemoveTimer(loop, timer, kCFRunLoopDefaultMode);
         EXPECT_FALSE(CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode));
         EXPECT_FALSE(CFRunLoopContainsTimer(loop, timer, kCFRunLoopDefaultMode));
         if (source != nullptr) CFRelease(source);
         if (timer != nullptr) CFRelease(timer);
         return isAdded ? 0 : OSStatus{memFullErr};
       },
       {memFullErr}});
}

// A pass of a run allocates nothing, whatever is due in it.
TEST_F(EventsWithoutMemory, ARunNeedsNone) {
  int calls = 0;
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  CFRunLoopSourceContext context = {};
  context.info = &calls;
  context.perform = [](void* info) { ++*static_cast<int*>(info); };
  CFRunLoopTimerContext timerContext = {0, &calls, nullptr, nullptr, nullptr};
  const auto count = [](CFRunLoopTimerRef, void* info) { ++*static_cast<int*>(info); };
  CFRunLoopSourceRef source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
  CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
  CFRunLoopSourceSignal(source);
  CFRunLoopTimerRef timers[2];  // one fires once, the other one stays
  for (CFTimeInterval interval : {0.0, 1e6}) {
    CFRunLoopTimerRef& timer = timers[interval > 0];
    timer = CFRunLoopTimerCreate(kCFAllocatorDefault, 0, interval, 0, 0, count, &timerContext);
    CFRunLoopAddTimer(loop, timer, kCFRunLoopDefaultMode);
  }
  ArmAllocationFailure(0, AllocationFailure::kAllFromThere);
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  DisarmAllocationFailure();
  EXPECT_EQ(0, AllocationsSinceArmed());
  EXPECT_EQ(3, calls);
  EXPECT_FALSE(CFRunLoopContainsTimer(loop, timers[0], kCFRunLoopDefaultMode));
  CFRunLoopRemoveTimer(loop, timers[1], kCFRunLoopDefaultMode);
  for (CFRunLoopTimerRef timer : timers) CFRelease(timer);
  CFRunLoopSourceInvalidate(source);
  CFRelease(source);
}

// While the port lives, a failed attempt keeps neither the name nor the loop.
TEST_F(EventsWithoutMemory, RegisteringAndServingAPort) {
  const std::string text = UniquePortName();
  const char* const name = text.c_str();
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  const CFIndex count = CFGetRetainCount(loop);
  const auto work = [&]() -> OSStatus {
    CFMachPortRef port = CFMachPortCreate(kCFAllocatorDefault, nullptr, nullptr, nullptr);
    CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
    CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
    const bool isAdded = CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode);
    CFRunLoopRemoveSource(loop, source, kCFRunLoopDefaultMode);
    EXPECT_EQ(count, CFGetRetainCount(loop));
    OSStatus err = memFullErr;
    if (isAdded) err = bootstrap_register(kHostBootstrapPort, name, CFMachPortGetPort(port));
    if (err == 0) bootstrap_register(kHostBootstrapPort, name, MACH_PORT_NULL);
    mach_port_t found = MACH_PORT_NULL;
    EXPECT_NE(BOOTSTRAP_SUCCESS, bootstrap_look_up(kHostBootstrapPort, name, &found));
    CFMachPortInvalidate(port);
    CFRelease(source);
    CFRelease(port);
    return err;
  };
  SweepAllocations({"register and serve",
                    work,
                    {memFullErr, BOOTSTRAP_NO_MEMORY, KERN_RESOURCE_SHORTAGE},
                    [&](OSStatus) { EXPECT_EQ(ports, HostCountPorts().portNames); }});
}

TEST_F(EventsWithoutMemory, AnAnswerHasAPlaceForItsErrorNumber) {
  AppleEvent event = {typeNull, nullptr};
  AppleEvent answer = {typeNull, nullptr};
  AEDesc address = NoAddress();
  HostAEEvent* request = nullptr;
  ASSERT_EQ(0, BuildEvent(&address, &event));
  ASSERT_EQ(0, HostFindEvent(&event, &request));
  ASSERT_EQ(0, HostMakeReply(*request, 0, &answer));
  const SInt32 number = memFullErr;
  ArmAllocationFailure(1, AllocationFailure::kAllFromThere);
  AEKeyword key = 1;  // other values take the room that is there
  while (AEPutParamPtr(&answer, key, typeSInt32, &number, sizeof number) == 0) key++;
  const OSStatus err = AEPutParamPtr(&answer, keyErrorNumber, typeSInt32, &number, sizeof number);
  DisarmAllocationFailure();
  EXPECT_EQ(0, err);
  for (AEDesc* each : {&event, &answer, &address}) AEDisposeDesc(each);
}

// A send right for which the table cannot grow is as if it had never been asked for.
TEST_F(EventsWithoutMemory, SendRightsForWhichTheTableCannotGrow) {
  constexpr int kMoreThanAGrowth = 300;
  std::vector<mach_port_t> names;
  int refused = 0;
  for (int i = 1; i < kMoreThanAGrowth; i++) {
    mach_port_t name = MACH_PORT_NULL;
    const auto insert = [&] { name = HostInsertSendRight(static_cast<uint64_t>(i)); };
    ArmAllocationFailure(2, AllocationFailure::kOne);  // the first is for the port's number
    HostGuard(insert);
    DisarmAllocationFailure();
    if (name == MACH_PORT_NULL) refused++, insert();
    names.push_back(name);
  }
  EXPECT_LT(0, refused);
  for (const mach_port_t name : names) EXPECT_EQ(0, HostDestroyRight(name));
}

OSStatus Refuse(UInt32, UInt32, const AEDesc*, AEDesc*, void*) { return errAEEventNotHandled; }

// Claiming a name and giving it back, with all that a listener does around that.
TEST_F(EventsWithoutMemory, ClaimingANameAndLookingItUp) {
  const std::string name = UniquePortName();
  const auto isFree = [&](OSStatus) {
    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE,
              VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), port));
  };
  SweepAllocations({"claim a name",
                    [&] {
                      VLTPortAEMachPortListener listener;
                      return listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), Refuse,
                                                   nullptr);
                    },
                    {memFullErr, kIOReturnNoResources, BOOTSTRAP_NO_MEMORY, KERN_NO_SPACE,
                     KERN_RESOURCE_SHORTAGE},
                    isFree});
}

}  // namespace
