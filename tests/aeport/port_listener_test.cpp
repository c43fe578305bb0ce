#include "aeport/port_listener.h"

#include <gtest/gtest.h>

#include <string>

#include <servers/bootstrap.h>

#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"

namespace {

const std::string kName127(127, 'n');
const std::string kName128(128, 'n');

bool IsRegistered(const std::string& name) {
  mach_port_t port = MACH_PORT_NULL;
  return VLTPortAEMachPortListener::CheckPortRegistered(name.c_str(), port) == 0 &&
         port != MACH_PORT_NULL;
}

// Counts the requests and replies with a fixed result.
struct Counter {
  EventHandler handler;
  OSStatus result;
  int count = 0;

  explicit Counter(OSStatus answer) : result(answer) {
    handler = [this](const ServedEvent&) {
      ++count;
      return result;
    };
  }
  OSStatus Listen(VLTPortAEMachPortListener& listener, const std::string& name) {
    return listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), CallHandler, &handler);
  }
};

// Makes protected members public.
class OpenListener : public VLTPortAEMachPortListener {
 public:
  mach_port_t Port() const { return port; }
  CFRunLoopSourceRef Source() const { return runLoopSource; }
  void PortInvalidated(CFMachPortRef invalid) override {
    ++invalidations;
    VLTPortAEMachPortListener::PortInvalidated(invalid);
  }
  int invalidations = 0;
};

class PortListener : public testing::Test {
 protected:
  OpenDescriptorCheck noLeaks;
  const std::string name = UniquePortName();
};

TEST_F(PortListener, NamesOf1To127BytesAreListenedOn) {
  const std::pair<std::string, OSStatus> rows[] = {
      {"", paramErr},  {"x", 0},     {kName127, 0},       {kName128, paramErr},
      {"a/../b%s", 0}, {" a b ", 0}, {"\xff\x01\x80", 0}, {"..", 0},
  };
  for (const auto& [name, err] : rows) {
    SCOPED_TRACE(name);
    Counter counter(0);
    VLTPortAEMachPortListener listener;
    EXPECT_EQ(err, counter.Listen(listener, name));
    EXPECT_EQ(err == 0, IsRegistered(name));
    if (err != 0) continue;
    EXPECT_EQ(0, AskServed(name, kPing).status);
    EXPECT_EQ(1, counter.count);
  }
  EXPECT_FALSE(IsRegistered("x"));
}

TEST_F(PortListener, BadArgumentsAndARepeatedCallLeaveAListenerAsItIs) {
  Counter counter(0);
  OpenListener listener;
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  EXPECT_EQ(paramErr, listener.ListenOnPort(nullptr, loop, CallHandler, nullptr));
  EXPECT_EQ(paramErr, listener.ListenOnPort(name.c_str(), loop, nullptr, nullptr));
  ASSERT_EQ(0, counter.Listen(listener, name));

  const mach_port_t port = listener.Port();
  const CFRunLoopSourceRef source = listener.Source();
  EXPECT_EQ(paramErr, listener.ListenOnPort("another", loop, CallHandler, nullptr));
  EXPECT_EQ(paramErr, listener.ListenOnPort(nullptr, loop, CallHandler, nullptr));
  EXPECT_EQ(paramErr, listener.ListenOnPort(name.c_str(), loop, nullptr, nullptr));
  EXPECT_EQ(0, counter.Listen(listener, name));
  EXPECT_EQ(port, listener.Port());
  EXPECT_EQ(source, listener.Source());
  EXPECT_FALSE(IsRegistered("another"));
  EXPECT_EQ(0, listener.invalidations);
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(1, counter.count);
}

TEST_F(PortListener, ListeningAgainRepairsAnInvalidPortOrSource) {
  Counter counter(0);
  OpenListener listener;
  ASSERT_EQ(0, counter.Listen(listener, name));
  mach_port_destroy(mach_task_self(), listener.Port());  // without the listener's knowledge
  EXPECT_EQ(1, listener.invalidations);
  EXPECT_FALSE(IsRegistered(name));
  EXPECT_EQ(0, counter.Listen(listener, name));
  EXPECT_EQ(0, AskServed(name, kPing).status);

  CFRunLoopSourceInvalidate(listener.Source());
  EXPECT_EQ(0, counter.Listen(listener, name));
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(2, counter.count);
}

TEST_F(PortListener, ASecondListenerOfTheProcessIsRefused) {
  Counter first(0), second(0);
  VLTPortAEMachPortListener holder, waiter;
  ASSERT_EQ(0, first.Listen(holder, name));
  EXPECT_EQ(portInUse, second.Listen(waiter, name));
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(1, first.count);

  // The refused one has taken its name for good.
  EXPECT_EQ(-5, holder.Deallocate(-5));
  EXPECT_EQ(paramErr, second.Listen(waiter, UniquePortName()));
  EXPECT_EQ(0, second.Listen(waiter, name));
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(1, second.count);
}

// Meant: the repair of one listener destroys the other's port, because rights coalesce in a
// process.
TEST_F(PortListener, ATornDownListenerTakesItsNameOver) {
  Counter first(0), second(0);
  VLTPortAEMachPortListener old;
  OpenListener usurped;
  ASSERT_EQ(0, first.Listen(old, name));
  EXPECT_EQ(0, old.Deallocate(0));
  EXPECT_EQ(0, old.Deallocate(0));
  EXPECT_FALSE(IsRegistered(name));
  ASSERT_EQ(0, second.Listen(usurped, name));

  EXPECT_EQ(0, first.Listen(old, name));
  EXPECT_EQ(1, usurped.invalidations);
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(1, first.count);
  EXPECT_EQ(0, second.count);
}

TEST_F(PortListener, AListenerWhoseNameLeadsElsewhereStartsAgainWithANewPort) {
  Counter first(0), second(0);
  OpenListener loser, holder;
  ASSERT_EQ(0, first.Listen(loser, name));
  const mach_port_t lost = loser.Port();
  mach_port_t bootstrap = MACH_PORT_NULL;
  ASSERT_EQ(0, VLTPortAEMachPortListener::GetBootstrapPort(bootstrap));
  ASSERT_EQ(0, bootstrap_register(bootstrap, name.c_str(), MACH_PORT_NULL));
  ASSERT_EQ(0, second.Listen(holder, name));

  EXPECT_EQ(0, first.Listen(loser, name));
  EXPECT_EQ(1, loser.invalidations);
  EXPECT_EQ(1, holder.invalidations);
  EXPECT_NE(0, mach_port_destroy(mach_task_self(), lost));  // it is gone already
  EXPECT_EQ(0, AskServed(name, kPing).status);
  EXPECT_EQ(1, first.count);
}

TEST_F(PortListener, TheHandlerGetsClassIdAndWhetherAReplyIsWanted) {
  DescType replyType = 0;
  UInt32 seenClass = 0, seenID = 0;
  UInt8 replyWanted = 9;
  EventHandler handler = [&](const ServedEvent& served) {
    replyType = served.reply->descriptorType;
    EXPECT_EQ(0, VLTGetAEDispatchAttributes(*served.event, &seenClass, &seenID, &replyWanted));
    EXPECT_EQ(served.eventClass, seenClass);
    EXPECT_EQ(served.eventID, seenID);
    return -1;
  };
  VLTPortAEMachPortListener listener;
  ASSERT_EQ(0, listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), CallHandler, &handler));

  EXPECT_EQ(-1, AskServed(name, kPing).status);
  EXPECT_EQ(FourCC('t', 'e', 's', 't'), seenClass);
  EXPECT_EQ(kPing, seenID);
  EXPECT_EQ(1, replyWanted);
  EXPECT_NE(typeNull, replyType);

  // No reply is wanted here, although the event has a reply port.
  EXPECT_EQ(0, Ask(name, kPing, kAENoReply).status);
  replyWanted = 9;
  EXPECT_TRUE(RunLoopUntil([&] { return replyWanted != 9; }, 10s));
  EXPECT_EQ(0, replyWanted);
  EXPECT_EQ(typeNull, replyType);
}

TEST(DispatchAttributes, FirstErrorStopsAndOutputsMayBeNull) {
  AEDesc event = {typeNull, nullptr};
  UInt32 code = 5;
  UInt8 wanted = 6;
  EXPECT_EQ(0, VLTGetAEDispatchAttributes(event, nullptr, nullptr, nullptr));
  EXPECT_EQ(errAENotAEDesc, VLTGetAEDispatchAttributes(event, nullptr, &code, &wanted));
  EXPECT_EQ(5u, code);
  EXPECT_EQ(6, wanted);
}

}  // namespace
