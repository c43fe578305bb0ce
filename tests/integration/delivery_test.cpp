#include <gtest/gtest.h>
#include <signal.h>

#include <Carbon/Carbon.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "aeport/port_listener.h"
#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "util/app_exception.h"

// What reaches another process, in which order, and what does not hold it up.

namespace {

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');
constexpr UInt32 kNote = FourCC('n', 'o', 't', 'e');  // a number, remembered
constexpr UInt32 kTell = FourCC('t', 'e', 'l', 'l');  // answers with the numbers so far
constexpr UInt32 kEcho = FourCC('e', 'c', 'h', 'o');  // answers with the bytes
constexpr UInt32 kHang = FourCC('h', 'a', 'n', 'g');
constexpr UInt32 kThrow = FourCC('t', 'h', 'r', 'o');
constexpr AEKeyword kValue = FourCC('v', 'a', 'l', 'u');
constexpr DescType kData = FourCC('t', 'd', 't', 'a');

class Request : public VLTPortAppleEvent {
 public:
  Request(VLTPortDestinationAddress* address, UInt32 eventID, SInt32 mode)
      : VLTPortAppleEvent(kTest, eventID, mode, address, kAutoGenerateReturnID, 0) {
    EXPECT_EQ(0, address->initialize());
    EXPECT_EQ(0, createEvent());
  }
  ~Request() override { finalizeEvent(); }
  OSStatus Send(SInt32 ticks = 20 * 60) { return sendEvent(0, ticks, kAENormalPriority); }
};

std::vector<UInt8> BytesOf(const AEDesc& event) {
  Size size = 0;
  AESizeOfParam(&event, kValue, nullptr, &size);
  std::vector<UInt8> bytes(size);
  AEGetParamPtr(&event, kValue, typeWildCard, nullptr, bytes.data(), size, nullptr);
  return bytes;
}

std::vector<UInt8> Pattern(size_t size) {
  std::vector<UInt8> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<UInt8>(i * 7 + i / 251);
  return bytes;
}

TEST_ROLE(Recorder) {
  std::vector<SInt32> numbers;
  EventHandler handler = [&](const ServedEvent& served) {
    if (served.eventID == kNote) {
      numbers.push_back(0);
      return AEGetParamPtr(served.event, kValue, typeSInt32, nullptr, &numbers.back(), 4, nullptr);
    }
    if (served.eventID == kTell) {
      return AEPutParamPtr(served.reply, kValue, kData, numbers.data(),
                           static_cast<Size>(numbers.size() * 4));
    }
    if (served.eventID == kEcho) {
      const std::vector<UInt8> bytes = BytesOf(*served.event);
      return AEPutParamPtr(served.reply, kValue, kData, bytes.data(),
                           static_cast<Size>(bytes.size()));
    }
    if (served.eventID == kHang) {
      role.Tell("hanging");
      raise(SIGSTOP);
    }
    if (served.eventID == kThrow) throw VLTAppException(-1);
    return OSErr{0};
  };
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), CallHandler, &handler) != 0) {
    return kRoleFailed;
  }
  role.SignalReady();
  try {
    RunApplicationEventLoop();
  } catch (const VLTAppException&) {
    return 7;
  }
  return kRoleDone;
}

TEST_ROLE(Asker) {
  VLTPortDestinationAddress address(role.PortName());
  Request request(&address, kEcho, kAEWaitReply);
  const std::vector<UInt8> bytes = Pattern(8 * 1024 * 1024);
  AEPutParamPtr(&request.event, kValue, kData, bytes.data(), static_cast<Size>(bytes.size()));
  role.SignalReady();
  request.Send();
  return kRoleDone;
}

std::vector<SInt32> NumbersOf(VLTPortDestinationAddress* address) {
  Request tell(address, kTell, kAEWaitReply);
  EXPECT_EQ(0, tell.Send());
  const std::vector<UInt8> bytes = BytesOf(tell.reply);
  std::vector<SInt32> numbers(bytes.size() / 4);
  std::copy(bytes.begin(), bytes.end(), reinterpret_cast<UInt8*>(numbers.data()));
  return numbers;
}

TEST(Delivery, OneWayEventsOfOneSenderArriveInOrder) {
  OpenDescriptorCheck noLeaks;
  TestProcess recorder("Recorder");
  ASSERT_TRUE(recorder.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(recorder.PortName());
    std::vector<SInt32> sent;
    for (SInt32 i = 0; i < 200; ++i) {
      Request note(&address, kNote, kAENoReply);
      AEPutParamPtr(&note.event, kValue, typeSInt32, &i, sizeof i);
      EXPECT_EQ(0, note.Send());
      sent.push_back(i);
    }
    EXPECT_EQ(sent, NumbersOf(&address));
  });
}

// Also what a sender left behind that has ended by now.
TEST(Delivery, EventsOfAThreadThatHasEndedArrive) {
  OpenDescriptorCheck noLeaks;
  TestProcess recorder("Recorder");
  ASSERT_TRUE(recorder.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(recorder.PortName());
    for (SInt32 i = 0; i < 50; ++i) {
      Request note(&address, kNote, kAENoReply);
      AEPutParamPtr(&note.event, kValue, typeSInt32, &i, sizeof i);
      EXPECT_EQ(0, note.Send());
    }
  });
  RunOnThread([&] {
    VLTPortDestinationAddress address(recorder.PortName());
    EXPECT_TRUE(WaitUntil([&] { return NumbersOf(&address).size() == 50; }, 20s));
  });
}

TEST(Delivery, LargeParametersTravelByteExact) {
  OpenDescriptorCheck noLeaks;
  TestProcess recorder("Recorder");
  ASSERT_TRUE(recorder.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(recorder.PortName());
    for (const size_t size : {0u, 1u, 65535u, 65536u, 4u * 1024 * 1024}) {
      SCOPED_TRACE(size);
      const std::vector<UInt8> bytes = Pattern(size);
      Request echo(&address, kEcho, kAEWaitReply);
      ASSERT_EQ(0, AEPutParamPtr(&echo.event, kValue, kData, bytes.data(),
                                 static_cast<Size>(bytes.size())));
      ASSERT_EQ(0, echo.Send());
      EXPECT_TRUE(bytes == BytesOf(echo.reply));
    }
    const std::vector<UInt8> tooLarge = Pattern(17 * 1024 * 1024);
    Request refused(&address, kEcho, kAEWaitReply);
    ASSERT_EQ(0, AEPutParamPtr(&refused.event, kValue, kData, tooLarge.data(),
                               static_cast<Size>(tooLarge.size())));
    EXPECT_EQ(memFullErr, refused.Send());
    EXPECT_TRUE(NumbersOf(&address).empty());  // the connection goes on
  });
}

TEST(Delivery, AStuckServerIsWaitedForInVainAndOthersAreNot) {
  OpenDescriptorCheck noLeaks;
  TestProcess stuck("Recorder");
  TestProcess other("Recorder");
  ASSERT_TRUE(stuck.WaitReady(20s));
  ASSERT_TRUE(other.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(stuck.PortName());
    VLTPortDestinationAddress otherAddress(other.PortName());
    EXPECT_EQ(errAETimeout, Request(&address, kHang, kAEWaitReply).Send(12));
    EXPECT_TRUE(NumbersOf(&otherAddress).empty());
    // Its late answer to the first request is nobody's.
    stuck.Signal(SIGCONT);
    EXPECT_TRUE(NumbersOf(&address).empty());
  });
}

TEST(Delivery, AServerThatDiesEndsTheWaitAtOnce) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Recorder");
  ASSERT_TRUE(server.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(server.PortName());
    Request hang(&address, kHang, kAEWaitReply);
    OSStatus status = 0;
    std::thread waiter([&] { status = hang.Send(0); });  // for ever, but for the death
    EXPECT_EQ("hanging", server.Hear(20s));
    EXPECT_TRUE(server.KillAndWait(20s));
    waiter.join();
    EXPECT_EQ(connectionInvalid, status);
    EXPECT_EQ(connectionInvalid, Request(&address, kTell, kAEWaitReply).Send());
  });
}

TEST(Delivery, AClientThatVanishesDisturbsNobody) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Recorder");
  ASSERT_TRUE(server.WaitReady(20s));
  for (int round = 0; round < 5; ++round) {
    TestProcess client("Asker", server.PortName(), {});
    EXPECT_TRUE(client.WaitReady(20s));
    client.KillAndWait(20s);  // in the middle of its 8 MiB, or of the answer
    RunOnThread([&] {
      VLTPortDestinationAddress address(server.PortName());
      EXPECT_TRUE(NumbersOf(&address).empty());
    });
  }
  EXPECT_EQ(std::nullopt, server.Wait(0ms));
}

TEST(Delivery, AnExceptionOfAHandlerReachesTheProgram) {
  OpenDescriptorCheck noLeaks;
  TestProcess server("Recorder");
  ASSERT_TRUE(server.WaitReady(20s));
  RunOnThread([&] {
    VLTPortDestinationAddress address(server.PortName());
    EXPECT_EQ(connectionInvalid, Request(&address, kThrow, kAEWaitReply).Send());
  });
  EXPECT_EQ(7, server.Wait(20s));
}

}  // namespace
