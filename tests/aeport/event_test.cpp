#include "aeport/event.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include <servers/bootstrap.h>

#include "tests/aeport/serving.h"
#include "tests/platform/events/support.h"
#include "tests/support/open_descriptor_check.h"

namespace {

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');
constexpr AEKeyword kBytes = FourCC('b', 'y', 't', 'e');

// An event for `address` in one of the reply modes.
class TestEvent : public VLTPortAppleEvent {
 public:
  explicit TestEvent(VLTPortDestinationAddress* address, SInt32 mode = kAEWaitReply)
      : VLTPortAppleEvent(kTest, kPing, mode, address, kAutoGenerateReturnID, kAnyTransactionID) {}
  ~TestEvent() override { finalizeEvent(); }

  bool ReplyReceived() const { return replyReceived; }
  const AEDesc& Target() const { return target; }

  OSStatus failure = 0;  // of the next sends, which then send nothing

 private:
  SInt32 doSendEvent(SInt32 mode, SInt32 ticks, SInt16 priority) override {
    return failure != 0 ? failure : VLTPortAppleEvent::doSendEvent(mode, ticks, priority);
  }
};

// A listener on a name of its own, on this thread's run loop.
struct Server {
  explicit Server(EventHandler what) : handler(std::move(what)), name(UniquePortName()) {
    EXPECT_EQ(0, listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), CallHandler, &handler));
  }
  EventHandler handler;
  std::string name;
  VLTPortAEMachPortListener listener;
};

TEST(PortDestinationAddress, GivesAnAddressOnlyAfterTheNameWasFound) {
  VLTPortDestinationAddress late("test.late"), copy;
  EXPECT_EQ(BOOTSTRAP_UNKNOWN_SERVICE, late.initialize());
  const Server server([](const ServedEvent&) { return 0; });
  const std::string tooLong = server.name + std::string(128 - server.name.size(), 'x');
  const std::pair<const char*, OSStatus> rows[] = {{nullptr, -1},
                                                   {"", -1},
                                                   {tooLong.c_str(), -1},  // never cut
                                                   {"test.nobody", BOOTSTRAP_UNKNOWN_SERVICE},
                                                   {server.name.c_str(), 0}};
  for (const auto& [name, err] : rows) {
    VLTPortDestinationAddress address(name);
    StDesc desc;
    EXPECT_EQ(-1, address.getDestinationAddress(&desc));
    EXPECT_EQ(err, address.initialize());
    EXPECT_EQ(err, address.initialize());
    EXPECT_EQ(err == 0 ? 0 : -1, address.getDestinationAddress(&desc));
    if (err != 0) continue;
    EXPECT_EQ(typeMachPort, desc.descriptorType);
    EXPECT_EQ(4, AEGetDescDataSize(&desc));
    copy = address;
    EXPECT_EQ(0, copy.getDestinationAddress(&desc));
  }
  // A search that failed is made again.
  VLTPortAEMachPortListener listener;
  ASSERT_EQ(0, listener.ListenOnPort("test.late", CFRunLoopGetCurrent(), CallHandler, nullptr));
  EXPECT_EQ(0, late.initialize());
}

TEST(ProcessDestinationAddress, PutsTheHighWordFirst) {
  VLTProcessDestinationAddress address({0x01020304, 0xA0B0C0D0});
  StDesc desc;
  EXPECT_EQ(0, address.initialize());
  ASSERT_EQ(0, address.getDestinationAddress(&desc));
  EXPECT_EQ(typeProcessSerialNumber, desc.descriptorType);
  std::array<UInt32, 2> words = {};
  ASSERT_EQ(8, AEGetDescDataSize(&desc));
  EXPECT_EQ(0, AEGetDescData(&desc, words.data(), sizeof words));
  EXPECT_EQ((std::array<UInt32, 2>{0x01020304, 0xA0B0C0D0}), words);
}

struct PortAppleEvent : testing::Test {
  OpenDescriptorCheck noLeaks;
};

TEST_F(PortAppleEvent, CannotBeMadeWithoutADestination) {
  TestEvent lost(nullptr);
  EXPECT_EQ(paramErr, lost.createEvent());
  VLTPortDestinationAddress unlocated("test.nobody");
  lost.setDestinationAddress(&unlocated);
  EXPECT_EQ(-1, lost.createEvent());
  EXPECT_EQ(typeNull, lost.event.descriptorType);
}

TEST_F(PortAppleEvent, TheReplysErrorNumberIsTheResultIfItIsALong) {
  // `put`: null: nothing.
  const std::tuple<const char*, Raw, OSStatus, OSStatus, bool> rows[] = {
      {"none", {}, 0, 0, false},
      {"zero", Long(0), 0, 0, true},
      {"the handler's own", Long(-50), 0, -50, true},
      {"the result replaces it", Long(-50), -43, -43, true},
      {"a positive one", {}, 1, 1, true},
      {"a short is coerced", Short(-50), 0, -50, true},
      {"text that is not a number", Text("abc"), 0, 0, true},
      {"a long without bytes", {typeSInt32, ""}, 0, 0, true},
      {"two bytes of a long", {typeSInt32, Short(-50).bytes}, 0, 0, true},
      {"two longs", {typeSInt32, Long(-50).bytes + Long(-43).bytes}, 0, 0, true},
  };
  for (const auto& [what, put, handlerResult, result, hasError] : rows) {
    SCOPED_TRACE(what);
    const Server server([&](const ServedEvent& served) {
      if (put != Raw{}) {
        AEPutParamPtr(served.reply, keyErrorNumber, put.type, put.bytes.data(), put.ByteCount());
      }
      return handlerResult;
    });
    const Answer answer = AskServed(server.name, kPing);
    EXPECT_EQ(result, answer.status);
    EXPECT_EQ(hasError, answer.hasError);
  }
}

TEST_F(PortAppleEvent, TheConstructorsReplyModeWins) {
  const std::tuple<SInt32, SInt32, OSStatus, bool, bool> rows[] = {
      {kAENoReply, kAEWaitReply, 0, false, false},
      {kAEWaitReply, kAENoReply | kAECanSwitchLayer, -7, true, true},
      // No reply has come yet, which differs from a reply without an error number.
      {kAEQueueReply, kAEWaitReply, 0, true, true},
      {0, kAEWaitReply, errAEUnknownSendMode, false, false},
  };
  for (const auto& [constructed, sent, result, hasReply, hasError] : rows) {
    SCOPED_TRACE(testing::Message() << constructed << " " << sent);
    const Server server([](const ServedEvent&) { return -7; });
    ServeWhile([&] {
      VLTPortDestinationAddress address(server.name.c_str());
      ASSERT_EQ(0, address.initialize());
      TestEvent event(&address, constructed);
      ASSERT_EQ(0, event.createEvent());
      EXPECT_EQ((constructed & 3) == kAENoReply, event.getSndReply() == nullptr);
      EXPECT_EQ(result, event.sendEvent(sent, 20 * 60, kAENormalPriority));
      EXPECT_EQ(hasReply, event.ReplyReceived());
      EXPECT_EQ(hasError, event.getReplyHasError());
    });
  }
}

// Both ends see the interaction level of the send, or of an earlier send if this one has no level.
TEST_F(PortAppleEvent, SendingSetsTheInteractionLevel) {
  const auto levelOf = [](const AEDesc& event) {
    SInt32 level = -1;
    const OSErr err = AEGetAttributePtr(&event, keyInteractLevelAttr, typeSInt32, nullptr, &level,
                                        sizeof level, nullptr);
    return err == errAEDescNotFound ? 0 : level;
  };
  SInt32 arrived = -1;
  const Server server([&](const ServedEvent& served) {
    arrived = levelOf(*served.event);
    return 0;
  });
  ServeWhile([&] {
    VLTPortDestinationAddress address(server.name.c_str());
    ASSERT_EQ(0, address.initialize());
    TestEvent event(&address);
    ASSERT_EQ(0, event.createEvent());
    const std::pair<SInt32, SInt32> rows[] = {{0, 0},
                                              {kAECanInteract | kAECanSwitchLayer, kAECanInteract},
                                              {kAEAlwaysInteract, kAEAlwaysInteract},
                                              {0, kAEAlwaysInteract},
                                              {kAENeverInteract, kAENeverInteract}};
    for (const auto& [sendMode, expectedLevel] : rows) {
      EXPECT_EQ(0, event.sendEvent(sendMode, 20 * 60, kAENormalPriority));
      EXPECT_EQ(expectedLevel, levelOf(event.event));
      EXPECT_EQ(expectedLevel, arrived);
    }
  });
}

TEST_F(PortAppleEvent, ASecondSendReplacesTheReplyAlsoWhenItFails) {
  OSStatus next = -1;
  const Server server([&](const ServedEvent& served) {
    AEPutParamPtr(served.reply, kBytes, typeSInt32, &next, sizeof next);
    return next++;
  });
  ServeWhile([&] {
    VLTPortDestinationAddress address(server.name.c_str());
    ASSERT_EQ(0, address.initialize());
    TestEvent event(&address);
    ASSERT_EQ(0, event.createEvent());
    EXPECT_EQ(-1, event.sendEvent(0, 20 * 60, kAENormalPriority));
    EXPECT_TRUE(event.getReplyHasError());
    EXPECT_EQ(0, event.sendEvent(0, 20 * 60, kAENormalPriority));
    EXPECT_FALSE(event.getReplyHasError());
    SInt32 number = 99;
    EXPECT_EQ(0, AEGetParamPtr(&event.reply, kBytes, typeSInt32, nullptr, &number, sizeof number,
                               nullptr));
    EXPECT_EQ(0, number);
    next = -1;
    EXPECT_EQ(-1, event.sendEvent(0, 20 * 60, kAENormalPriority));
    event.failure = errAETimeout;
    EXPECT_EQ(errAETimeout, event.sendEvent(0, 20 * 60, kAENormalPriority));
    EXPECT_FALSE(event.ReplyReceived() || event.getReplyHasError());
    EXPECT_EQ(typeNull, event.reply.descriptorType);
  });
}

TEST(EventText, IsANewStringThatTheCallerDeletes) {
  StDesc desc;
  ASSERT_EQ(0, AECreateDesc(typeChar, "hello", 5, &desc));
  char* text = nullptr;
  ASSERT_EQ(0, VLTAppleEventWrapper::printDescToBufAlloc(&desc, text));
  EXPECT_NE(std::string::npos, std::string(text).find("hello"));
  delete[] text;
  VLTAppleEventWrapper::printDesc("label", &desc);

  char* untouched = nullptr;
  EXPECT_NE(0, VLTAppleEventWrapper::printDescToBufAlloc(nullptr, untouched));
  EXPECT_EQ(nullptr, untouched);
}

}  // namespace
