#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <servers/bootstrap.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/aeport/serving.h"
#include "tests/platform/events/support.h"
#include "tests/platform/plist/random_list.h"
#include "tests/platform/plist/support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Processes of different word size and byte order in one session: an event with a parameter of
// every type that travels, and with lists and records of them. Each side makes the same event in
// its own order; what the other side received, and what it sent back, must print the same. The
// property lists that they write are the same bytes.

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

// A parameter that is larger than what the system takes at once.
void ExchangeBytes(const char* name, size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; i++) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  VLTPortDestinationAddress address(name);
  VLTPortAppleEvent event(kTest, kExchange, kAEWaitReply, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) {
    err = AEPutParamPtr(&event.event, 1, typeChar, bytes.data(), static_cast<Size>(count));
  }
  if (err == 0) err = event.sendEvent(0, 60 * 60, kAENormalPriority);
  ASSERT_EQ(0, err);
  StDesc back;
  EXPECT_EQ(0, AEGetParamDesc(&event.reply, 1, typeChar, &back));
  EXPECT_TRUE(Contents(back).bytes == bytes);
  event.finalizeEvent();
}

// The kind of machine that this program was built for.
std::string HostText() {
  const bool isBig = std::endian::native == std::endian::big;
  return std::string(VLT_CPU) + ", " + std::to_string(8 * sizeof(void*)) + " bits, " +
         (isBig ? "big" : "little") + "-endian";
}

constexpr UInt32 kNeverAnswered = FourCC('n', 'e', 'v', 'r');
constexpr int kLists = 200;

TEST_ROLE(Server) {
  EventHandler handler = [](const ServedEvent& served) -> OSStatus {
    // Slower than its client's patience, which is 0.1 s.
    if (served.eventID == kNeverAnswered) poll(nullptr, 0, 300);
    return SendBack(served);
  };
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return RoleFailed();
  }
  role.Tell(HostText());
  role.SignalReady();
  CFRunLoopRun();
  return RoleFailed();  // the test kills us first
}

// What a client of one kind finds at a server of another: all types, a request that is refused, one
// that is not answered in time, and more requests than one connection's socket is used for, small
// and large.
TEST_ROLE(Client) {
  role.Tell(HostText());
  Exchange(role.PortName());
  EXPECT_EQ(errAEEventNotHandled, Ask(role.PortName(), kPing).status);
  for (int i = 0; i < 20; i++) Exchange(role.PortName());
  ExchangeBytes(role.PortName(), 300'000);
  for (int i = 0; i < 5; i++) Exchange(role.PortName());
  EXPECT_EQ(errAETimeout, Ask(role.PortName(), kNeverAnswered, kAEWaitReply, 6).status);
  EXPECT_EQ(errAEEventNotHandled, Ask(role.PortName(), kPing).status);
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(UniquePortName(), kPing).status);
  return testing::Test::HasFailure() ? RoleFailed() : kRoleDone;
}

// Writes the lists of the seeds from 0 on, in both forms, into a folder.
TEST_ROLE(Writer) {
  for (int i = 0; i < kLists; i++) {
    CFTypeRef list = RandomList(static_cast<UInt32>(i), RandomList::Text::kAll).Value(5);
    const std::string path = role.Argument(0) + "/" + std::to_string(i);
    std::ofstream(path + ".xml") << WriteXML(list);
    std::ofstream(path + ".bin") << WriteBinary(list);
    CFRelease(list);
  }
  return kRoleDone;
}

// Every pair, a server and a client of the same kind among them.
TEST(TypedExchange, BetweenAllKindsOfHosts) {
  OpenDescriptorCheck noLeaks;
  std::set<std::string> kinds;
  for (const TestPeer servers : AllHosts()) {
    TestProcess server("Server", {}, servers);
    const std::string kind = server.Hear(60s).value_or("a server that does not start");
    ASSERT_TRUE(server.WaitReady(60s)) << kind;
    EXPECT_TRUE(kinds.insert(kind).second) << kind << ": two builds of one kind";
    for (const TestPeer clients : AllHosts()) {
      TestProcess client("Client", server.PortName(), {}, clients);
      const std::string pair = client.Hear(60s).value_or("nobody") + " asks " + kind;
      EXPECT_EQ(kRoleDone, client.Wait(120s)) << pair;
      std::printf("%s\n", pair.c_str());
    }
    // Nor does another kind of host take a name that is owned.
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

TEST(ListExchange, AllKindsOfHostsWriteTheSameBytes) {
  const ScratchFolder folder;
  for (const TestPeer host : AllHosts()) {
    const std::string own = folder.Path(std::to_string(static_cast<int>(host)));
    std::filesystem::create_directory(own);
    TestProcess writer("Writer", {own}, host);
    ASSERT_EQ(kRoleDone, writer.Wait(120s)) << own;
    for (int i = 0; i < kLists; i++) {
      for (const char* form : {".xml", ".bin"}) {
        const std::string name = "/" + std::to_string(i) + form;
        const std::string bytes = ReadFile(own + name);
        ASSERT_FALSE(bytes.empty()) << own << name;
        ASSERT_EQ(ReadFile(folder.Path("0") + name), bytes) << own << name;
      }
    }
  }
}

}  // namespace
