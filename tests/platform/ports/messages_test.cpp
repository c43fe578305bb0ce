#include <Carbon/Carbon.h>
#include <mach/mach.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "platform/host/ports/introspect.h"
#include "tests/platform/events/support.h"

namespace {

using namespace std::chrono_literals;

constexpr AEKeyword kNumberKey = FourCC('n', 'u', 'm', 'b');
constexpr AEEventClass kTestClass = FourCC('t', 'e', 's', 't');
constexpr SInt32 kShortTicks = 12;  // 0.2 s

void MakeEvent(mach_port_t target, SInt32 number, AppleEvent* event) {
  StDesc address;
  Make(Code(typeMachPort, target), &address);
  EXPECT_EQ(0, AECreateAppleEvent(kTestClass, FourCC('n', 'u', 'm', 'b'), &address,
                                  kAutoGenerateReturnID, kAnyTransactionID, event));
  EXPECT_EQ(0, AEPutParamPtr(event, kNumberKey, typeSInt32, &number, sizeof number));
}

SInt32 NumberOf(const AppleEvent* event) {
  SInt32 number = -1;
  AEGetParamPtr(event, kNumberKey, typeSInt32, nullptr, &number, sizeof number, nullptr);
  return number;
}

// A port on the loop of the thread that makes it. The handler gets each request and its reply.
class Server {
 public:
  using Handler = std::function<void(const AppleEvent&, AppleEvent&)>;

  explicit Server(Handler body) : handler(std::move(body)) {
    CFMachPortContext context = {};
    context.info = this;
    port = CFMachPortCreate(kCFAllocatorDefault, Receive, &context, nullptr);
    source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
    CFRunLoopAddSource(CFRunLoopGetCurrent(), source, kCFRunLoopDefaultMode);
  }
  ~Server() {
    CFMachPortInvalidate(port);
    CFRelease(source);
    CFRelease(port);
  }

  mach_port_t Port() const { return CFMachPortGetPort(port); }
  void Destroy() { mach_port_destroy(mach_task_self(), Port()); }

  static bool Run(std::function<bool()> done) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!done() && std::chrono::steady_clock::now() < end) {
      CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, true);
    }
    return done();
  }

 private:
  static void Receive(CFMachPortRef, void* message, CFIndex, void* info) {
    AppleEvent event, reply;
    ASSERT_EQ(0, AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &event, &reply));
    // A message is decoded once. Disposing of a copy of the event as well is harmless.
    AppleEvent second;
    EXPECT_EQ(errAENotAppleEvent,
              AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &second, nullptr));
    AppleEvent copy = event;
    static_cast<Server*>(info)->handler(event, reply);
    AEDisposeDesc(&copy);
    AEDisposeDesc(&event);
  }

  Handler handler;
  CFMachPortRef port;
  CFRunLoopSourceRef source;
};

TEST(Messages, SendingToOneselfNeverWaitsAndKeepsTheOrder) {
  std::vector<SInt32> seen;
  Server server([&](const AppleEvent& event, AppleEvent& reply) {
    seen.push_back(NumberOf(&event));
    EXPECT_EQ(typeNull, reply.descriptorType);
    UInt8 wanted = 9;
    SInt16 from = 0;
    AEGetAttributePtr(&event, keyReplyRequestedAttr, typeBoolean, nullptr, &wanted, 1, nullptr);
    AEGetAttributePtr(&event, keyEventSourceAttr, typeSInt16, nullptr, &from, 2, nullptr);
    EXPECT_EQ(0, wanted);
    EXPECT_EQ(2, from);
  });
  for (SInt32 i = 0; i < 300; i++) {
    StDesc event;
    MakeEvent(server.Port(), i, &event);
    ASSERT_EQ(0, AESendMessage(&event, nullptr, kAENoReply, kAEDefaultTimeout));
  }
  EXPECT_TRUE(seen.empty());
  EXPECT_TRUE(Server::Run([&] { return seen.size() == 300; }));
  for (SInt32 i = 0; i < 300; i++) EXPECT_EQ(i, seen[static_cast<size_t>(i)]);
}

TEST(Messages, TheQueueToOneselfHasALimitAndServingItMakesRoomAgain) {
  size_t seen = 0;
  Server server([&](const AppleEvent&, AppleEvent&) { seen++; });
  const std::string large(size_t{15} << 20, 'x');
  StDesc event;
  MakeEvent(server.Port(), 0, &event);
  ASSERT_EQ(0, AEPutParamPtr(&event, FourCC('d', 'a', 't', 'a'), typeChar, large.data(),
                             static_cast<Size>(large.size())));
  for (size_t round = 1; round <= 3; round++) {
    OSStatus err = 0;
    size_t sent = 0;
    for (; err == 0 && sent < 10; sent++) {
      err = AESendMessage(&event, nullptr, kAENoReply, kAEDefaultTimeout);
    }
    EXPECT_EQ(errAETimeout, err);
    EXPECT_EQ(5u, sent);
    EXPECT_TRUE(Server::Run([&] { return seen == 4 * round; }));
  }
}

TEST(Messages, WaitingOnTheServingThreadTimesOut) {
  int handled = 0;
  Server server([&](const AppleEvent&, AppleEvent& reply) {
    handled++;
    AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout);
  });
  const size_t before = HostCountPorts().portNames;
  StDesc event, reply;
  MakeEvent(server.Port(), 5, &event);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(errAETimeout, AESendMessage(&event, &reply, kAEWaitReply, kShortTicks));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 199ms);
  EXPECT_EQ(typeNull, reply.descriptorType);
  // The late reply is dropped and its right is freed.
  EXPECT_TRUE(Server::Run([&] { return handled == 1; }));
  EXPECT_EQ(before, HostCountPorts().portNames);
}

TEST(Messages, TheDeathOfThePortEndsTheWait) {
  enum class When { kQueued, kSeen, kInTheCallout };
  for (const When when : {When::kQueued, When::kSeen, When::kInTheCallout}) {
    SCOPED_TRACE(static_cast<int>(when));
    int seen = 0;
    mach_port_t dying = MACH_PORT_NULL;
    Server server([&](const AppleEvent&, AppleEvent&) {
      seen++;
      if (dying != MACH_PORT_NULL) mach_port_destroy(mach_task_self(), dying);
    });
    if (when == When::kInTheCallout) dying = server.Port();
    std::promise<OSStatus> result;
    std::thread asker([&, port = server.Port()] {
      StDesc event, reply;
      MakeEvent(port, 1, &event);
      result.set_value(AESendMessage(&event, &reply, kAEWaitReply, 20 * 60));
    });
    if (when != When::kQueued) {
      EXPECT_TRUE(Server::Run([&] { return seen == 1; }));
    }
    if (when != When::kInTheCallout) server.Destroy();
    EXPECT_EQ(connectionInvalid, result.get_future().get());
    asker.join();
  }
}

TEST(Messages, AReplyThatCannotBeSentReturnsAnErrorToBothSides) {
  Server server([](const AppleEvent&, AppleEvent& reply) {
    const std::string large(size_t{17} << 20, 'x');
    EXPECT_EQ(0, AEPutParamPtr(&reply, kNumberKey, typeChar, large.data(),
                               static_cast<Size>(large.size())));
    EXPECT_EQ(memFullErr, AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout));
    EXPECT_EQ(connectionInvalid, AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout));
  });
  const mach_port_t port = server.Port();
  std::future<SInt32> asking = std::async(std::launch::async, [port] {
    StDesc event, reply;
    MakeEvent(port, 1, &event);
    EXPECT_EQ(0, AESendMessage(&event, &reply, kAEWaitReply, 600));
    SInt32 error = 0;
    AEGetParamPtr(&reply, keyErrorNumber, typeSInt32, nullptr, &error, sizeof error, nullptr);
    return error;
  });
  EXPECT_TRUE(Server::Run([&] { return asking.wait_for(0s) == std::future_status::ready; }));
  EXPECT_EQ(memFullErr, asking.get());
}

TEST(Messages, BadSendsReturnTheirErrors) {
  Server server([](const AppleEvent&, AppleEvent&) {});
  StDesc good, reply;
  MakeEvent(server.Port(), 1, &good);
  EXPECT_EQ(errAEUnknownSendMode, AESendMessage(&good, &reply, kAECanInteract, 60));
  EXPECT_NE(0, AESendMessage(nullptr, &reply, kAENoReply, 60));
  const struct {
    Raw address;
    OSStatus err;
  } rows[] = {{Code(typeMachPort, 4711), connectionInvalid},
              {Several(typeProcessSerialNumber, {ULong(1), ULong(2)}), procNotFound},
              {Code(typeKernelProcessID, 0x7FFFFFFF), procNotFound},
              {Long(1), errAEUnknownAddressType}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.address));
    StDesc address, event;
    Make(row.address, &address);
    ASSERT_EQ(0, AECreateAppleEvent(kTestClass, 1, &address, -1, 0, &event));
    EXPECT_EQ(row.err, AESendMessage(&event, &reply, kAEWaitReply, 60));
  }
}

TEST(Messages, AnEventToTheProcessItselfIsNotHandled) {
  const ProcessSerialNumber self = {0, kCurrentProcess};
  StDesc address, event, reply;
  ASSERT_EQ(0, AECreateDesc(typeProcessSerialNumber, &self, sizeof self, &address));
  ASSERT_EQ(0, AECreateAppleEvent(kTestClass, 1, &address, -1, 0, &event));
  EXPECT_EQ(0, AESend(&event, &reply, kAEWaitReply, kAENormalPriority, 60, nullptr, nullptr));
  SInt32 result = 0;
  EXPECT_EQ(0, AEGetParamPtr(&reply, keyErrorNumber, typeSInt32, nullptr, &result, 4, nullptr));
  EXPECT_EQ(errAEEventNotHandled, result);
}

}  // namespace
