#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <mach/mach.h>
#include <servers/bootstrap.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/ports/introspect.h"
#include "platform/host/ports/local_waiter.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/session/introspect.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

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

TEST(MachPort, WrongRightNumbersAndRightsGetTheirErrors) {
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

TEST(MachPort, RightNumbersAreNotReusedSoon) {
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

// The right number stays invalid when another right has its slot in the table.
TEST(MachPort, AFreedRightNumberIsInvalidForEveryCall) {
  const mach_port_t freed = NewReceiveRight();
  EXPECT_EQ(KERN_SUCCESS, mach_port_destroy(mach_task_self(), freed));
  std::vector<mach_port_t> others;
  for (int i = 0; i < 1000; i++) {
    const task_t task = mach_task_self();
    ASSERT_EQ(KERN_INVALID_NAME,
              mach_port_insert_right(task, freed, freed, MACH_MSG_TYPE_MAKE_SEND));
    ASSERT_EQ(KERN_INVALID_NAME, mach_port_deallocate(task, freed));
    ASSERT_EQ(KERN_INVALID_NAME, mach_port_destroy(task, freed));
    ASSERT_EQ(KERN_INVALID_RIGHT, bootstrap_register(Bootstrap(), "freed", freed));
    ASSERT_EQ(HostDestination::Kind::kNone, HostResolvePort(freed).kind);
    others.push_back(NewReceiveRight());
    if (i % 2 == 1) mach_port_destroy(task, others[static_cast<size_t>(i / 2)]);
  }
  for (const mach_port_t each : others) mach_port_destroy(mach_task_self(), each);
}

// However a reply right is given up, the waiter for the reply is released.
TEST(MachPort, AReplyRightKeepsNothingWhenItGoes) {
  HostReplyTarget taken;
  const std::function<void(mach_port_t)> ways[] = {
      [](mach_port_t right) { mach_port_destroy(mach_task_self(), right); },
      [](mach_port_t right) { mach_port_deallocate(mach_task_self(), right); },
      [](mach_port_t right) { HostRemoveReplyRight(right); },
      [&](mach_port_t right) {
        EXPECT_TRUE(HostTakeReplyRight(right, &taken));
        taken = {};
      },
  };
  const size_t before = HostCountPorts().portNames;
  for (const auto& giveUp : ways) {
    auto waiter = std::make_shared<HostLocalWaiter>();
    const std::weak_ptr<HostLocalWaiter> kept = waiter;
    const mach_port_t right = HostInsertReplyRight(HostReplyTarget(std::move(waiter)));
    EXPECT_FALSE(kept.expired());
    giveUp(right);
    EXPECT_TRUE(kept.expired());
    EXPECT_FALSE(HostTakeReplyRight(right, &taken));
    EXPECT_EQ(before, HostCountPorts().portNames);
  }
}

TEST(MachPort, SendRightsToDeadPortsGoWhenThereAreMany) {
  const mach_port_t owner = NewReceiveRight();
  ASSERT_EQ(0, bootstrap_register(Bootstrap(), "the.living", owner));
  const std::string ports = HostGetSessionDirectory()->path + "/ports/";
  std::ofstream(ports + "0000000000000001");  // port 1 is alive while it has this file
  const mach_port_t living = HostInsertSendRight(1);
  const size_t before = HostCountPorts().portNames;
  for (uint64_t port = 2; port < 10000; port++) HostInsertSendRight(port);
  EXPECT_LE(HostCountPorts().portNames, before + 1100);
  EXPECT_EQ(living, HostInsertSendRight(1));
  std::filesystem::remove(ports + "0000000000000001");
  for (uint64_t port = 1; port < 10000; port++) HostForgetDeadPort(port);
  EXPECT_EQ(before - 1, HostCountPorts().portNames);
  EXPECT_EQ(HostDestination::Kind::kNone, HostResolvePort(living).kind);
  mach_port_destroy(mach_task_self(), owner);
}

TEST(MachPort, SendRightsOfOnePortAreOneRightThatCountsItsReferences) {
  mach_port_t found = MACH_PORT_NULL;
  const mach_port_t owner = NewReceiveRight();
  ASSERT_EQ(0, bootstrap_register(Bootstrap(), "counted", owner));
  for (int i = 0; i < 2; i++) {
    ASSERT_EQ(0, bootstrap_look_up(Bootstrap(), "counted", &found));
    EXPECT_EQ(owner, found);
  }
  const mach_port_t other = HostInsertSendRight(77);
  EXPECT_EQ(other, HostInsertSendRight(77));
  EXPECT_EQ(KERN_INVALID_RIGHT,
            mach_port_insert_right(mach_task_self(), other, other, MACH_MSG_TYPE_MAKE_SEND));
  for (const mach_port_t each : {owner, other}) {
    EXPECT_EQ(KERN_SUCCESS, mach_port_deallocate(mach_task_self(), each));
    EXPECT_EQ(KERN_SUCCESS, mach_port_deallocate(mach_task_self(), each));
    EXPECT_EQ(KERN_INVALID_RIGHT, mach_port_deallocate(mach_task_self(), each));
  }
  EXPECT_EQ(other, HostInsertSendRight(77));  // kept while its port lives
  HostForgetDeadPort(77);
  mach_port_destroy(mach_task_self(), owner);
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, bootstrap_look_up(Bootstrap(), "counted", &found));
  EXPECT_EQ(MACH_PORT_NULL, found);
}

TEST(Bootstrap, ANameHasOneOwner) {
  const mach_port_t owner = NewReceiveRight(), rival = NewReceiveRight();
  mach_port_t found = MACH_PORT_NULL;
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", owner));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "one.owner", owner));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), "a.second.name", owner));
  EXPECT_EQ(BOOTSTRAP_NAME_IN_USE, bootstrap_register(Bootstrap(), "one.owner", rival));
  EXPECT_EQ(1u, HostCountPorts().receivers);  // the rival keeps no socket for a name it did not get
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

TEST(Bootstrap, ANameThatCannotBeRegisteredIsUnknown) {
  const std::string longest(127, 'n'), tooLong(128, 'n');
  const mach_port_t owner = NewReceiveRight();
  mach_port_t found = 1;
  for (const std::string& name : {std::string(), tooLong}) {
    EXPECT_EQ(KERN_INVALID_ARGUMENT, bootstrap_register(Bootstrap(), name.c_str(), owner));
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, bootstrap_look_up(Bootstrap(), name.c_str(), &found));
    EXPECT_EQ(MACH_PORT_NULL, found);
    uint64_t port = 0;
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, HostFindName(name.c_str(), &port));
  }
  EXPECT_EQ(KERN_INVALID_ARGUMENT, bootstrap_look_up(Bootstrap(), nullptr, &found));
  EXPECT_EQ(0, bootstrap_register(Bootstrap(), longest.c_str(), owner));
  EXPECT_EQ(0, bootstrap_look_up(Bootstrap(), longest.c_str(), &found));
  EXPECT_EQ(owner, found);
  mach_port_destroy(mach_task_self(), owner);
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
