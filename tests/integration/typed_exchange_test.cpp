#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <servers/bootstrap.h>

#include <bit>
#include <string>

#include "tests/aeport/serving.h"
#include "tests/platform/events/support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// An event with a parameter of every type that travels, and with lists and records of them, between
// processes of different word size and byte order. Each side makes the same event in its own order;
// what the other side received, and what it sent back, must print the same.

namespace {

constexpr AEEventClass kTest = FourCC('t', 'e', 's', 't');
constexpr AEEventID kExchange = FourCC('e', 'x', 'c', 'h');
// What the server adds to its answer.
constexpr AEKeyword kReceivedKey = FourCC('-', 'd', 's', 'c');

void PutValue(AEDesc* container, AEKeyword key, const Raw& value) {
  ASSERT_EQ(0, AEPutParamPtr(container, key, value.type, value.bytes.data(), value.ByteCount()));
}

// Every value by itself, in a list, in a record, and in an event within the event.
void PutAll(AEDesc* event) {
  StDesc record, inner;
  StList list;
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record));
  ASSERT_EQ(0, AECreateAppleEvent(kTest, 1, nullptr, -7, -70000, &inner));
  AEKeyword key = 0;
  for (const Raw& value : ValuesOfEveryType()) {
    ++key;
    ASSERT_EQ(0, AEPutPtr(&list, 0, value.type, value.bytes.data(), value.ByteCount()));
    for (AEDesc* container : {event, static_cast<AEDesc*>(&record), static_cast<AEDesc*>(&inner)}) {
      PutValue(container, key, value);
    }
  }
  ASSERT_EQ(0, AEPutParamDesc(&record, ++key, &list));
  ASSERT_EQ(0, AEPutParamDesc(&inner, key, &record));
  ASSERT_EQ(0, AEPutParamDesc(event, key, &inner));
}

// The items with their keywords, each in a line of its own.
std::string PrintItems(const AEDesc& container) {
  std::string text;
  SInt32 count = 0;
  EXPECT_EQ(0, AECountItems(&container, &count));
  for (SInt32 i = 1; i <= count; ++i) {
    StDesc item;
    AEKeyword key = 0;
    EXPECT_EQ(0, AEGetNthDesc(&container, i, typeWildCard, &key, &item));
    if (key != kReceivedKey) text += std::to_string(key) + ":" + Printed(item) + "\n";
  }
  return text;
}

// Sends back all that came, with what it looks like from here.
OSStatus SendBack(const ServedEvent& served) {
  if (served.eventClass != kTest || served.eventID != kExchange) return errAEEventNotHandled;
  const OSStatus err = CopyParameters(served.event, served.reply);
  const std::string seen = PrintItems(*served.event);
  AEPutParamPtr(served.reply, kReceivedKey, typeChar, seen.data(), static_cast<Size>(seen.size()));
  return err == 0 && testing::Test::HasFailure() ? OSStatus{paramErr} : err;
}

// Fails the test where the two sides do not see the same.
void Exchange(const char* name) {
  VLTPortDestinationAddress address(name);
  VLTPortAppleEvent event(kTest, kExchange, kAEWaitReply, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) PutAll(&event.event);
  if (err == 0) err = event.sendEvent(0, 60 * 60, kAENormalPriority);
  ASSERT_EQ(0, err);

  const std::string mine = PrintItems(event.event);
  StDesc seen;
  EXPECT_EQ(0, AEGetParamDesc(&event.reply, kReceivedKey, typeChar, &seen));
  EXPECT_EQ(mine, Contents(seen).bytes);
  EXPECT_EQ(mine, PrintItems(event.reply));
  event.finalizeEvent();
}

std::string HostText() {
  const bool isBig = std::endian::native == std::endian::big;
  return std::to_string(sizeof(void*)) + (isBig ? " big" : " little");
}

TEST_ROLE(Server) {
  EventHandler handler = SendBack;
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return kRoleFailed;
  }
  role.Tell(HostText());
  role.SignalReady();
  CFRunLoopRun();
  return kRoleFailed;  // the test kills us first
}

TEST_ROLE(Client) {
  role.Tell(HostText());
  Exchange(role.PortName());
  role.Tell(std::to_string(Ask(role.PortName(), kPing).status));
  return testing::Test::HasFailure() ? kRoleFailed : kRoleDone;
}

TEST(TypedExchange, WithAServerOfTheOtherHost) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server", {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  RunOnThread([&] {
    Exchange(server.PortName());
    EXPECT_EQ(errAEEventNotHandled, Ask(server.PortName(), kPing).status);
    server.KillAndWait(20s);
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(server.PortName(), kPing).status);
  });
}

TEST(TypedExchange, WithAClientOfTheOtherHost) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server");
  EXPECT_EQ("8 little", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  TestProcess client("Client", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", client.Hear(60s));
  EXPECT_EQ(std::to_string(errAEEventNotHandled), client.Hear(60s));
  EXPECT_EQ(kRoleDone, client.Wait(20s));
  // Nor does the other host take a name that is owned here.
  TestProcess rival("Server", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ(kRoleFailed, rival.Wait(60s));
  RunOnThread([&] { Exchange(server.PortName()); });
}

}  // namespace
