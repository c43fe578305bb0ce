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
#include "tests/platform/events/support.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "util/owned_ref.h"

// Events, ports and run loops of one thread while an allocation fails.

namespace {

constexpr AEEventClass kClass = FourCC('t', 'e', 's', 't');
constexpr AEKeyword kText = FourCC('t', 'e', 'x', 't');
constexpr AEKeyword kList = FourCC('l', 'i', 's', 't');
constexpr AEKeyword kRecord = FourCC('r', 'e', 'c', 'o');

OSStatus PutText(AEDesc* to, AEKeyword key, std::string_view text) {
  return AEPutParamPtr(to, key, typeChar, text.data(), static_cast<Size>(text.size()));
}

// Makes an event to this process with values of every kind: small, large, in a list and in a
// record.
OSStatus BuildEvent(AppleEvent* event) {
  static const std::string kLong(5000, 'x');
  StDesc address, list, record;
  const ProcessSerialNumber self = {0, kCurrentProcess};
  const SInt32 number = 7;
  OSStatus err = AECreateDesc(typeProcessSerialNumber, &self, sizeof self, &address);
  if (err == 0) err = AECreateAppleEvent(kClass, 1, &address, kAutoGenerateReturnID, 0, event);
  if (err == 0) err = AECreateList(nullptr, 0, false, &list);
  for (int i = 1; err == 0 && i < 20; i++) err = AEPutPtr(&list, 0, typeChar, kLong.data(), 60);
  if (err == 0) err = AECreateList(nullptr, 0, true, &record);
  if (err == 0) err = PutText(&record, kText, "a text that is longer than what fits inline");
  if (err == 0) err = AEPutKeyPtr(&record, kList, typeSInt32, &number, sizeof number);
  if (err == 0) err = AEPutParamDesc(event, kList, &list);
  if (err == 0) err = AEPutParamDesc(event, kRecord, &record);
  if (err == 0) err = PutText(event, kText, kLong);
  return err;
}

// Counts the descriptors and rights that a test must give back.
class EventsWithoutMemory : public DescTest {
 protected:
  ~EventsWithoutMemory() override { EXPECT_EQ(ports, HostCountPorts().portNames); }

  OpenDescriptorCheck noLeaks;
  const size_t ports = HostCountPorts().portNames;
  const CFRunLoopRef loop = CFRunLoopGetCurrent();
};

TEST_F(EventsWithoutMemory, AreBuiltCopiedCoercedFlattenedAndDecodedOrRefused) {
  Sweep("build an event", [] {
    StDesc event;
    return BuildEvent(&event);
  });
  StDesc event;
  ASSERT_EQ(0, BuildEvent(&event));
  Sweep("duplicate an event", [&] {
    StDesc copy;
    return OSStatus{AEDuplicateDesc(&event, &copy)};
  });
  Sweep("coerce and print", [&] {
    StDesc number, text;
    Handle printed = nullptr;
    OSStatus err = AEPrintDescToHandle(&event, &printed);
    if (err == 0) err = AEGetParamDesc(&event, kText, typeWildCard, &text);
    if (err == 0) err = AEGetParamDesc(&event, kList, typeAEList, &number);
    if (printed != nullptr) DisposeHandle(printed);
    return err;
  });
  Sweep("flatten and decode", [&] {
    HostGather gather;
    StDesc decoded;
    OSStatus err = HostFlattenEvent(&event, gather);
    HostFrameSlice body;
    if (err == 0) body = HostCopyFrameBody(gather);
    if (err == 0 && !body.owner) err = memFullErr;
    if (err == 0) err = HostDecodeEvent(std::move(body), &decoded);
    EXPECT_TRUE(err == 0 || decoded.IsNull());
    return err;
  });
}

TEST_F(EventsWithoutMemory, SourcesAndTimersAreAddedOrNotAndLeaveTheLoop) {
  Sweep("source and timer", [&] {
    CFRunLoopSourceContext context = {};
    const OwnedRef<CFRunLoopSourceRef> source = CFRunLoopSourceCreate(nullptr, 0, &context);
    const OwnedRef<CFRunLoopTimerRef> timer =
        CFRunLoopTimerCreate(nullptr, 1e10, 0, 0, 0, nullptr, nullptr);
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
    return isAdded ? 0 : OSStatus{memFullErr};
  });
}

TEST_F(EventsWithoutMemory, APassOfARunAllocatesNothing) {
  int calls = 0;
  CFRunLoopSourceContext context = {};
  context.info = &calls;
  context.perform = [](void* info) { ++*static_cast<int*>(info); };
  CFRunLoopTimerContext timerContext = {0, &calls, nullptr, nullptr, nullptr};
  const auto count = [](CFRunLoopTimerRef, void* info) { ++*static_cast<int*>(info); };
  const OwnedRef<CFRunLoopSourceRef> source = CFRunLoopSourceCreate(nullptr, 0, &context);
  CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
  CFRunLoopSourceSignal(source);
  const OwnedRef<CFRunLoopTimerRef> once =
      CFRunLoopTimerCreate(nullptr, 0, 0, 0, 0, count, &timerContext);
  const OwnedRef<CFRunLoopTimerRef> repeats =
      CFRunLoopTimerCreate(nullptr, 0, 1e6, 0, 0, count, &timerContext);
  CFRunLoopAddTimer(loop, once, kCFRunLoopDefaultMode);
  CFRunLoopAddTimer(loop, repeats, kCFRunLoopDefaultMode);
  ArmAllocationFailure(0, AllocationFailure::kAllFromThere);
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
  DisarmAllocationFailure();
  EXPECT_EQ(0, AllocationsSinceArmed());
  EXPECT_EQ(3, calls);
  EXPECT_FALSE(CFRunLoopContainsTimer(loop, once, kCFRunLoopDefaultMode));
  CFRunLoopRemoveTimer(loop, repeats, kCFRunLoopDefaultMode);
  CFRunLoopSourceInvalidate(source);
}

// While the port lives, a failed attempt keeps neither the name nor the loop.
TEST_F(EventsWithoutMemory, APortIsRegisteredAndServedOrKeepsNothing) {
  const std::string name = UniquePortName();
  const CFIndex count = CFGetRetainCount(loop);
  const auto work = [&]() -> OSStatus {
    const OwnedRef<CFMachPortRef> port = CFMachPortCreate(nullptr, nullptr, nullptr, nullptr);
    const OwnedRef<CFRunLoopSourceRef> source = CFMachPortCreateRunLoopSource(nullptr, port, 0);
    CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
    const bool isAdded = CFRunLoopContainsSource(loop, source, kCFRunLoopDefaultMode);
    CFRunLoopRemoveSource(loop, source, kCFRunLoopDefaultMode);
    EXPECT_EQ(count, CFGetRetainCount(loop));
    OSStatus err = memFullErr;
    if (isAdded)
      err = bootstrap_register(kHostBootstrapPort, name.c_str(), CFMachPortGetPort(port));
    if (err == 0) bootstrap_register(kHostBootstrapPort, name.c_str(), MACH_PORT_NULL);
    mach_port_t found = MACH_PORT_NULL;
    EXPECT_NE(BOOTSTRAP_SUCCESS, bootstrap_look_up(kHostBootstrapPort, name.c_str(), &found));
    CFMachPortInvalidate(port);
    return err;
  };
  Sweep("register and serve", work, {memFullErr, BOOTSTRAP_NO_MEMORY, KERN_RESOURCE_SHORTAGE},
        [&](OSStatus) { EXPECT_EQ(ports, HostCountPorts().portNames); });
}

TEST_F(EventsWithoutMemory, AReplyHasRoomForItsErrorNumber) {
  StDesc event, reply;
  HostAEEvent* request = nullptr;
  ASSERT_EQ(0, BuildEvent(&event));
  ASSERT_EQ(0, HostFindEvent(&event, &request));
  ASSERT_EQ(0, HostMakeReply(*request, 0, &reply));
  const SInt32 number = memFullErr;
  ArmAllocationFailure(1, AllocationFailure::kAllFromThere);
  AEKeyword key = 1;  // other values take the room that is there
  while (AEPutParamPtr(&reply, key, typeSInt32, &number, sizeof number) == 0) key++;
  const OSStatus err = AEPutParamPtr(&reply, keyErrorNumber, typeSInt32, &number, sizeof number);
  DisarmAllocationFailure();
  EXPECT_EQ(0, err);
}

TEST_F(EventsWithoutMemory, ASendRightForWhichTheTableCannotGrowCanBeInsertedLater) {
  constexpr int kMoreThanAGrowth = 300;
  std::vector<mach_port_t> rights;
  int refused = 0;
  for (int i = 1; i < kMoreThanAGrowth; i++) {
    mach_port_t right = MACH_PORT_NULL;
    const auto insert = [&] { right = HostInsertSendRight(static_cast<uint64_t>(i)); };
    ArmAllocationFailure(2, AllocationFailure::kOne);  // the first is for the port id
    HostGuard(insert);
    DisarmAllocationFailure();
    if (right == MACH_PORT_NULL) refused++, insert();
    rights.push_back(right);
  }
  EXPECT_LT(0, refused);
  for (const mach_port_t right : rights) EXPECT_EQ(0, HostDestroyRight(right));
}

OSStatus Refuse(UInt32, UInt32, const AEDesc*, AEDesc*, void*) { return errAEEventNotHandled; }

TEST_F(EventsWithoutMemory, AListenerClaimsItsNameOrLeavesItFree) {
  const std::string name = UniquePortName();
  const auto listen = [&] {
    VLTPortAEMachPortListener listener;
    return listener.ListenOnPort(name.c_str(), loop, Refuse, nullptr);
  };
  const auto isFree = [&](OSStatus) {
    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE,
              VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), port));
  };
  Sweep("claim a name", listen,
        {memFullErr, kIOReturnNoResources, BOOTSTRAP_NO_MEMORY, KERN_NO_SPACE,
         KERN_RESOURCE_SHORTAGE},
        isFree);
}

}  // namespace
