#include <atomic>
#include <future>

#include <servers/bootstrap.h>

#include "platform/host/ports/introspect.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/few_descriptors.h"

// The run-loop source of a port that changes its loop while clients send. One process, so that the
// thread sanitizer sees all of it.

namespace {

// A loop on a thread of its own, ended with the object.
class LoopThread {
 public:
  LoopThread() {
    std::promise<CFRunLoopRef> started;
    thread = std::thread([this, &started] {
      // Keeps the loop from being finished while nothing else is in it.
      CFRunLoopSourceContext context = {};
      CFRunLoopSourceRef idle = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
      CFRunLoopAddSource(CFRunLoopGetCurrent(), idle, kCFRunLoopDefaultMode);
      started.set_value(CFRunLoopGetCurrent());
      while (!ended) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 60, true);
      CFRunLoopSourceInvalidate(idle);
      CFRelease(idle);
    });
    loop = started.get_future().get();
  }
  ~LoopThread() {
    ended = true;
    CFRunLoopStop(loop);
    thread.join();
  }
  CFRunLoopRef Loop() const { return loop; }

 private:
  std::atomic<bool> ended{false};
  CFRunLoopRef loop = nullptr;
  std::thread thread;
};

void AnswerEcho(CFMachPortRef, void* message, CFIndex, void* info) {
  AppleEvent event = {typeNull, nullptr}, reply = {typeNull, nullptr};
  if (AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &event, &reply) != 0) return;
  const SInt32 number = NumberOf(event);
  AEPutParamPtr(&reply, kNumberKey, typeSInt32, &number, sizeof number);
  AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout);
  static_cast<std::atomic<int>*>(info)->fetch_add(1);
}

// A port that echoes, asked by several threads: no request may be lost or be served twice.
class AskedPort {
 public:
  AskedPort() {
    CFMachPortContext context = {};
    context.info = &served;
    port = CFMachPortCreate(kCFAllocatorDefault, AnswerEcho, &context, nullptr);
  }
  ~AskedPort() {
    CFMachPortInvalidate(port);
    CFRelease(port);
  }

  // Each thread asks `each` requests with a number from 0 on; `ask` returns whether the reply was
  // right. `disturb` is called on this thread until all have ended.
  void AskWhile(int each, const std::function<std::function<bool(SInt32)>()>& newAsker,
                const std::function<void()>& disturb) {
    constexpr int kAskers = 3;
    std::vector<std::thread> askers;
    running = kAskers;
    for (int i = 0; i < kAskers; i++) {
      askers.emplace_back([&] {
        const std::function<bool(SInt32)> ask = newAsker();
        for (SInt32 number = 0; number < each; number++) answered += ask(number);
        running--;
      });
    }
    while (running > 0) disturb();
    for (std::thread& asker : askers) asker.join();
    EXPECT_EQ(kAskers * each, answered);
    EXPECT_EQ(kAskers * each, served);
  }

  CFMachPortRef port;
  std::atomic<int> served{0}, answered{0}, running{0};
};

TEST(PortSources, ComeAndGoWhileThePortIsAsked) {
  OpenDescriptorCheck noLeaks;
  const size_t rights = HostCountPorts().portNames;
  {
    LoopThread one, other;
    AskedPort asked;
    const auto newAsker = [&] {
      return [&](SInt32 number) {
        const FaultAnswer answer = AskPort(CFMachPortGetPort(asked.port), kEchoID, number);
        return answer.status == 0 && answer.number == number;
      };
    };
    int turn = 0;
    asked.AskWhile(300 * TestScale(), newAsker, [&] {
      const CFRunLoopRef loop = turn % 2 == 0 ? one.Loop() : other.Loop();
      CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(nullptr, asked.port, 0);
      CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
      const int until = asked.answered + 1;
      EXPECT_TRUE(WaitUntil([&] { return asked.answered >= until || asked.running == 0; }, 20s));
      CFRunLoopRemoveSource(loop, source, kCFRunLoopDefaultMode);
      if (turn++ % 3 == 0) CFRunLoopSourceInvalidate(source);
      CFRelease(source);
    });
  }
  EXPECT_EQ(rights, HostCountPorts().portNames);
}

// Two loops watch the port, and one of them comes and goes. Each client begins and ends lanes. A
// wake-up that gets lost leaves a request without a reply.
TEST(PortSources, ServeLanesOnSeveralLoops) {
  OpenDescriptorCheck noLeaks;
  LoopThread one, other;
  AskedPort asked;
  const std::string name = UniquePortName();
  mach_port_t bootstrap = MACH_PORT_NULL;
  ASSERT_EQ(0, task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap));
  ASSERT_EQ(0, bootstrap_register(bootstrap, name.c_str(), CFMachPortGetPort(asked.port)));
  CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(nullptr, asked.port, 0);
  CFRunLoopAddSource(one.Loop(), source, kCFRunLoopDefaultMode);
  const int perLane = 100 * TestScale();
  const auto newAsker = [&] {
    return [&, peer = std::shared_ptr<RawPeer>()](SInt32 number) mutable {
      if (number % perLane == 0) {
        peer = std::make_shared<RawPeer>(name.c_str());
        if (!peer->HasLane()) peer->TakeLane();
      }
      const auto answer = peer->Ask(RawFrame(RawRequest(1), kEchoID, number));
      return answer && answer->number == number;
    };
  };
  asked.AskWhile(4 * perLane, newAsker, [&] {
    CFRunLoopAddSource(other.Loop(), source, kCFRunLoopDefaultMode);
    std::this_thread::yield();
    CFRunLoopRemoveSource(other.Loop(), source, kCFRunLoopDefaultMode);
  });
  CFRelease(source);
}

// Afterwards the name is free in both cases.
TEST(PortSources, AListenerThatLacksFileDescriptorsFailsOrAnswers) {
  OpenDescriptorCheck noLeaks;
  int failures = 0, answers = 0;
  for (size_t left = 0; left < 10; left++) {
    SCOPED_TRACE(left);
    const std::string name = "test.few." + std::to_string(left);
    RunOnThread([&] {  // a thread whose run loop has served nothing yet
      const FewDescriptors few(left);
      std::atomic<bool> isServed{false};
      VLTPortAEMachPortListener listener;
      const VLTAEDispatchCallback serve = [](UInt32, UInt32, const AEDesc*, AEDesc*, void* flag) {
        *static_cast<std::atomic<bool>*>(flag) = true;
        return OSStatus{0};
      };
      const OSStatus err =
          listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), serve, &isServed);
      mach_port_t port = MACH_PORT_NULL;
      if (err == 0) {
        answers++;
        EXPECT_EQ(0, LookUpPort(name.c_str(), &port));
        EXPECT_EQ(0, SendOneWay(port, kDropID, 1));
        while (CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true) == kCFRunLoopRunHandledSource) {
        }
        EXPECT_TRUE(isServed);
      } else {
        failures++;
        listener.Deallocate(0);
      }
    });
    EXPECT_NE(0, LookUpPort(name.c_str()));
  }
  EXPECT_GT(failures, 0);
  EXPECT_GT(answers, 0);
}

}  // namespace
