#include <gtest/gtest.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

#include <bit>
#include <cstring>
#include <string>
#include <vector>

#include "aeport/port_listener.h"
#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Two processes of one session whose machines differ in word size and byte order. Both sides hold
// values in their own order, so each checks what it got against what the other must have meant.

namespace {

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');

struct Row {
  AEKeyword key;
  DescType type;
  std::vector<UInt8> bytes;  // of this host
};

template <class Number>
Row NumberRow(AEKeyword key, DescType type, Number number) {
  std::vector<UInt8> bytes(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  return {key, type, bytes};
}

std::vector<Row> Rows() {
  std::vector<UInt8> large(1 << 20);
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<UInt8>(i * 31 + i / 253);
  return {
      NumberRow<UInt8>(FourCC('b', 'o', 'o', 'l'), typeBoolean, 1),
      NumberRow<SInt16>(FourCC('s', 'h', 'o', 'r'), typeSInt16, -2),
      NumberRow<SInt32>(FourCC('l', 'o', 'n', 'g'), typeSInt32, -123456789),
      NumberRow<SInt64>(FourCC('c', 'o', 'm', 'p'), typeSInt64, -1234567890123456789),
      NumberRow<float>(FourCC('s', 'i', 'n', 'g'), typeIEEE32BitFloatingPoint, 1.5e10f),
      NumberRow<double>(FourCC('d', 'o', 'u', 'b'), typeIEEE64BitFloatingPoint, -0.1),
      NumberRow<UInt32>(FourCC('t', 'y', 'p', 'e'), typeType, FourCC('a', 'e', 'v', 't')),
      {FourCC('t', 'e', 'x', 't'), typeChar, {'G', 'r', 0x9f, 0xa7}},
      {FourCC('d', 'a', 't', 'a'), FourCC('t', 'd', 't', 'a'), large},
  };
}

OSStatus PutRows(AEDesc* event) {
  OSStatus err = 0;
  for (const Row& row : Rows()) {
    if (err == 0) {
      err = AEPutParamPtr(event, row.key, row.type, row.bytes.data(),
                          static_cast<Size>(row.bytes.size()));
    }
  }
  AEDesc list = {typeNull, nullptr};
  const SInt32 number = 0x01020304;
  if (err == 0) err = AECreateList(nullptr, 0, false, &list);
  if (err == 0) err = AEPutPtr(&list, 0, typeSInt32, &number, sizeof number);
  if (err == 0) err = AEPutParamDesc(event, FourCC('l', 'i', 's', 't'), &list);
  AEDisposeDesc(&list);
  return err;
}

// How many parameters are not what PutRows put.
OSStatus CountWrong(const AEDesc* event) {
  OSStatus wrong = 0;
  for (const Row& row : Rows()) {
    DescType type = 0;
    Size size = 0;
    std::vector<UInt8> bytes(row.bytes.size());
    const OSErr err = AEGetParamPtr(event, row.key, typeWildCard, &type, bytes.data(),
                                    static_cast<Size>(bytes.size()), &size);
    const bool isRight = err == 0 && type == row.type && bytes == row.bytes &&
                         size == static_cast<Size>(bytes.size());
    if (!isRight) ++wrong;
  }
  AEDesc list = {typeNull, nullptr};
  SInt32 number = 0;
  AEGetParamDesc(event, FourCC('l', 'i', 's', 't'), typeAEList, &list);
  AEGetNthPtr(&list, 1, typeSInt32, nullptr, nullptr, &number, sizeof number, nullptr);
  AEDisposeDesc(&list);
  return number == 0x01020304 ? wrong : wrong + 1;
}

// Checks the request, fills the reply; its result counts the wrong parameters.
OSStatus Check(const ServedEvent& served) {
  if (served.eventClass != kTest || served.eventID != kPing) return errAEEventNotHandled;
  const OSStatus err = PutRows(served.reply);
  return err != 0 ? err : CountWrong(served.event);
}

OSStatus AskAll(const char* name) {
  VLTPortDestinationAddress address(name);
  VLTPortAppleEvent event(kTest, kPing, kAEWaitReply, &address, kAutoGenerateReturnID, 0);
  OSStatus err = address.initialize();
  if (err == 0) err = event.createEvent();
  if (err == 0) err = PutRows(&event.event);
  if (err == 0) err = event.sendEvent(0, 60 * 60, kAENormalPriority);
  if (err == 0) err = CountWrong(&event.reply);
  event.finalizeEvent();
  return err;
}

void TellTheHost(TestRole& role) {
  const bool isBig = std::endian::native == std::endian::big;
  role.Tell(std::to_string(sizeof(void*)) + (isBig ? " big" : " little"));
}

TEST_ROLE(Server) {
  EventHandler handler = Check;
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return kRoleFailed;
  }
  TellTheHost(role);
  role.SignalReady();
  CFRunLoopRun();
  return kRoleFailed;  // the test kills us first
}

TEST_ROLE(Client) {
  TellTheHost(role);
  role.Tell(std::to_string(AskAll(role.PortName())));
  role.Tell(std::to_string(Ask(role.PortName(), FourCC('e', 'l', 's', 'e')).status));
  return kRoleDone;
}

TEST(MixedHosts, ANativeClientAsksTheOther) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server", {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  RunOnThread([&] {
    EXPECT_EQ(0, AskAll(server.PortName()));
    EXPECT_EQ(errAEEventNotHandled, Ask(server.PortName(), 1).status);
    server.KillAndWait(20s);
    EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, Ask(server.PortName(), 1).status);
  });
}

TEST(MixedHosts, TheOtherAsksANativeServer) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Server");
  EXPECT_EQ("8 little", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  TestProcess client("Client", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ("4 big", client.Hear(60s));
  EXPECT_EQ("0", client.Hear(60s));
  EXPECT_EQ(std::to_string(errAEEventNotHandled), client.Hear(60s));
  EXPECT_EQ(kRoleDone, client.Wait(20s));
}

TEST(MixedHosts, TheOtherCannotTakeANameThatANativeProcessOwns) {
  TestProcess server("Server");
  EXPECT_EQ("8 little", server.Hear(60s));
  ASSERT_TRUE(server.WaitReady(60s));
  TestProcess rival("Server", server.PortName(), {}, TestPeer::kOtherHost);
  EXPECT_EQ(kRoleFailed, rival.Wait(60s));
  RunOnThread([&] { EXPECT_EQ(0, AskAll(server.PortName())); });
}

}  // namespace
