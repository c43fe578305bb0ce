#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <servers/bootstrap.h>

#include <bit>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/aeport/serving.h"
#include "tests/platform/events/support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Processes of different word size and byte order in one session: an event with a parameter of
// every type that travels, and with lists and records of them. Each side makes the same event in
// its own order; what the other side received, and what it sent back, must print the same.

namespace {

constexpr AEEventClass kTest = FourCC('t', 'e', 's', 't');
constexpr AEEventID kExchange = FourCC('e', 'x', 'c', 'h');
// A description of the received parameters that the server adds to its reply.
constexpr AEKeyword kReceivedKey = FourCC('-', 'd', 's', 'c');

void PutValue(AEDesc* container, AEKeyword key, const Raw& value) {
  ASSERT_EQ(0, AEPutParamPtr(container, key, value.type, value.bytes.data(), value.ByteCount()));
}

// Puts every value by itself, in a list, in a record, and in an event within the event.
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

// Returns the items with their keywords, one a line.
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

// Replies with all parameters and a description of them.
OSStatus SendBack(const ServedEvent& served) {
  if (served.eventClass != kTest || served.eventID != kExchange) return errAEEventNotHandled;
  const OSStatus err = CopyParameters(served.event, served.reply);
  const std::string seen = PrintItems(*served.event);
  AEPutParamPtr(served.reply, kReceivedKey, typeChar, seen.data(), static_cast<Size>(seen.size()));
  return err == 0 && testing::Test::HasFailure() ? OSStatus{paramErr} : err;
}

// Sends what `put` puts, and fails the test if the two sides see different values.
void Exchange(const char* name, const std::function<void(AEDesc*)>& put = PutAll) {
  VLTPortDestinationAddress address(name);
  VLTPortAppleEvent event(kTest, kExchange, kAEWaitReply, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) put(&event.event);
  if (err == 0) err = event.sendEvent(0, 60 * 60, kAENormalPriority);
  ASSERT_EQ(0, err);
  const std::string mine = PrintItems(event.event);
  StDesc seen;
  EXPECT_EQ(0, AEGetParamDesc(&event.reply, kReceivedKey, typeChar, &seen));
  EXPECT_EQ(mine, Contents(seen).bytes);
  EXPECT_EQ(mine, PrintItems(event.reply));
  event.finalizeEvent();
}

// Puts a value that is larger than what the system takes at once.
void PutLarge(AEDesc* event) {
  std::string bytes(300'000, '\0');
  for (size_t i = 0; i < bytes.size(); i++) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  PutValue(event, 1, {FourCC('d', 'a', 't', 'a'), bytes});
}

// Names the CPU architecture of this build.
std::string HostText() {
  const bool isBig = std::endian::native == std::endian::big;
  return std::string(VLT_CPU) + ", " + std::to_string(8 * sizeof(void*)) + " bits, " +
         (isBig ? "big" : "little") + "-endian";
}

constexpr UInt32 kNeverAnswered = FourCC('n', 'e', 'v', 'r');

TEST_ROLE(Server) {
  EventHandler handler = [](const ServedEvent& served) -> OSStatus {
    // Later than its client's time limit of 0.1 s.
    if (served.eventID == kNeverAnswered) poll(nullptr, 0, 300);
    return SendBack(served);
  };
  role.Tell(HostText());
  return ServeForEver(role, CallHandler, &handler);
}

// A client of one architecture sends to a server of another: all types, a request that is refused,
// one that times out, and small and large requests by the socket and by a lane.
TEST_ROLE(Client) {
  role.Tell(HostText());
  Exchange(role.PortName());
  EXPECT_EQ(errAEEventNotHandled, Ask(role.PortName(), kPing).status);
  for (int i = 0; i < 20; i++) Exchange(role.PortName());
  Exchange(role.PortName(), PutLarge);
  for (int i = 0; i < 5; i++) Exchange(role.PortName());
  EXPECT_EQ(errAETimeout, Ask(role.PortName(), kNeverAnswered, kAEWaitReply, 6).status);
  EXPECT_EQ(errAEEventNotHandled, Ask(role.PortName(), kPing).status);
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(UniquePortName(), kPing).status);
  return testing::Test::HasFailure() ? RoleFailed() : kRoleDone;
}

TEST(TypedExchange, BetweenAllArchitecturesKeepsEveryTypeAndOneOwnerOfAName) {
  OpenDescriptorCheck noLeaks;
  std::set<std::string> kinds;
  for (const TestPeer servers : AllHosts()) {
    TestProcess server("Server", {}, servers);
    const std::string kind = server.Hear(60s).value_or("a server that does not start");
    ASSERT_TRUE(server.WaitReady(60s)) << kind;
    EXPECT_TRUE(kinds.insert(kind).second) << kind << ": two builds of one architecture";
    for (const TestPeer clients : AllHosts()) {
      TestProcess client("Client", server.PortName(), {}, clients);
      const std::string pair = client.Hear(60s).value_or("nobody") + " asks " + kind;
      EXPECT_EQ(kRoleDone, client.Wait(120s)) << pair;
      std::printf("%s\n", pair.c_str());
    }
    // A name that is owned cannot be claimed from another architecture either.
    for (const TestPeer rivals : AllHosts()) {
      TestProcess rival("Server", server.PortName(), {}, rivals);
      EXPECT_EQ(kRoleFailed, rival.Wait(60s)) << kind;
    }
    RunOnThread([&] {
      Exchange(server.PortName());
      server.KillAndWait(20s);
      EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(server.PortName(), kPing).status) << kind;
    });
  }
}

}  // namespace
