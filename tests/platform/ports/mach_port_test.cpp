#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <mach/mach.h>
#include <servers/bootstrap.h>

#include <set>

#include "platform/host/ports/introspect.h"
#include "platform/host/session/introspect.h"

namespace {

mach_port_t Bootstrap() {
  mach_port_t port = MACH_PORT_NULL;
  EXPECT_EQ(KERN_SUCCESS, task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &port));
  return port;
}

mach_port_t NewReceiveRight() {
  mach_port_t port = MACH_PORT_NULL;
  EXPECT_EQ(KERN_SUCCESS, mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &port));
  return port;
}

TEST(MachPort, WrongNamesAndRightsGetTheirCodes) {
  mach_port_t port = MACH_PORT_NULL;
  EXPECT_EQ(KERN_INVALID_ARGUMENT, task_get_special_port(mach_task_self(), TASK_HOST_PORT, &port));
  EXPECT_EQ(KERN_INVALID_VALUE, mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_SEND, &port));
  for (const mach_port_t nobody : {MACH_PORT_NULL, MACH_PORT_DEAD, mach_port_t{12345678}}) {
    EXPECT_EQ(KERN_INVALID_NAME, mach_port_destroy(mach_task_self(), nobody));
    EXPECT_EQ(KERN_INVALID_NAME, mach_port_deallocate(mach_task_self(), nobody));
  }
  port = NewReceiveRight();
  EXPECT_EQ(KERN_INVALID_RIGHT, mach_port_deallocate(mach_task_self(), port));
  EXPECT_EQ(KERN_SUCCESS,
            mach_port_insert_right(mach_task_self(), port, port, MACH_MSG_TYPE_MAKE_SEND));
  EXPECT_EQ(KERN_SUCCESS, mach_port_deallocate(mach_task_self(), port));
  EXPECT_EQ(KERN_INVALID_RIGHT, mach_port_deallocate(mach_task_self(), port));
  EXPECT_EQ(KERN_SUCCESS, mach_port_destroy(mach_task_self(), port));
}

TEST(MachPort, NamesAreNotReusedSoon) {
  std::set<mach_port_t> seen;
  const size_t before = HostCountPorts().portNames;
  for (int i = 0; i < 100000; i++) {
    const mach_port_t port = NewReceiveRight();
    ASSERT_TRUE(port != MACH_PORT_NULL && port != MACH_PORT_DEAD);
    ASSERT_TRUE(seen.insert(port).second) << i;
    ASSERT_EQ(KERN_SUCCESS, mach_port_destroy(mach_task_self(), port));
  }
  EXPECT_EQ(before, HostCountPorts().portNames);
}

TEST(Bootstrap, ANameHasOneOwner) {
  const mach_port_t owner = NewReceiveRight(), rival = NewReceiveRight();
  mach_port_t found = MACH_PORT_NULL;
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", owner));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", owner));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "a.second.name", owner));
  EXPECT_EQ(BOOTSTRAP_NAME_IN_USE, bootstrap_register(Bootstrap(), "one.owner", rival));
  EXPECT_EQ(KERN_INVALID_RIGHT, bootstrap_register(Bootstrap(), "other", 4711));

  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", MACH_PORT_NULL));
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE,
            bootstrap_register(Bootstrap(), "one.owner", MACH_PORT_NULL));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", rival));
  EXPECT_EQ(0, bootstrap_look_up(Bootstrap(), "one.owner", &found));
  EXPECT_EQ(rival, found);
  EXPECT_EQ(2u, HostListNames().size());
  mach_port_destroy(mach_task_self(), owner);
  mach_port_destroy(mach_task_self(), rival);
  EXPECT_TRUE(HostListNames().empty());
}

struct PortLog {
  int invalidated = 0;
  int released = 0;
  bool stillNamed = false;
};

CFMachPortRef NewMachPort(PortLog* log) {
  CFMachPortContext context = {};
  context.info = log;
  context.release = [](const void* info) {
    static_cast<PortLog*>(const_cast<void*>(info))->released++;
  };
  const CFMachPortRef port = CFMachPortCreate(kCFAllocatorDefault, nullptr, &context, nullptr);
  CFMachPortSetInvalidationCallBack(port, [](CFMachPortRef self, void* info) {
    auto* seen = static_cast<PortLog*>(info);
    seen->invalidated++;
    seen->stillNamed = CFMachPortGetPort(self) != MACH_PORT_NULL && !CFMachPortIsValid(self);
    CFRetain(self);  // a callback may count, also while the object goes
    CFRelease(self);
  });
  return port;
}

TEST(CFMachPort, BecomesInvalidOnceWhateverEndsIt) {
  enum class End { kInvalidate, kDestroyRight, kRelease };
  for (const End end : {End::kInvalidate, End::kDestroyRight, End::kRelease}) {
    SCOPED_TRACE(static_cast<int>(end));
    PortLog log;
    const CFMachPortRef port = NewMachPort(&log);
    const mach_port_t name = CFMachPortGetPort(port);
    const CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(nullptr, port, 0);
    const CFRunLoopSourceRef again = CFMachPortCreateRunLoopSource(nullptr, port, 0);
    EXPECT_EQ(source, again);
    CFRelease(again);
    CFRunLoopAddSource(CFRunLoopGetCurrent(), source, kCFRunLoopDefaultMode);
    EXPECT_TRUE(CFMachPortIsValid(port));
    if (end == End::kInvalidate) CFMachPortInvalidate(port);
    if (end == End::kDestroyRight) mach_port_destroy(mach_task_self(), name);
    if (end == End::kRelease) CFRelease(port);
    EXPECT_EQ(1, log.invalidated);
    EXPECT_EQ(1, log.released);
    EXPECT_TRUE(log.stillNamed);
    EXPECT_FALSE(CFRunLoopSourceIsValid(source));
    EXPECT_FALSE(CFRunLoopContainsSource(CFRunLoopGetCurrent(), source, kCFRunLoopDefaultMode));
    CFRelease(source);
    if (end != End::kRelease) {
      EXPECT_EQ(nullptr, CFMachPortCreateRunLoopSource(nullptr, port, 0));
      CFMachPortInvalidate(port);
      CFRelease(port);
      EXPECT_EQ(1, log.invalidated);
    }
    // The object gave up its receive right.
    EXPECT_EQ(KERN_INVALID_NAME, mach_port_destroy(mach_task_self(), name));
  }
}

TEST(CFMachPort, ACallbackSetTooLateRunsAtOnce) {
  PortLog log;
  const CFMachPortRef port = NewMachPort(&log);
  CFMachPortInvalidate(port);
  static int sLate;
  sLate = 0;
  CFMachPortSetInvalidationCallBack(port, [](CFMachPortRef, void*) { sLate++; });
  EXPECT_EQ(1, sLate);
  CFRelease(port);
}

}  // namespace
