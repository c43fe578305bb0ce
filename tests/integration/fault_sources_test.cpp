#include <array>
#include <atomic>
#include <future>

#include <servers/bootstrap.h>

#include "platform/host/ports/introspect.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/few_descriptors.h"

// The run-loop source of a port that changes its loop while the port is asked. One process, so that
// the thread sanitizer sees all of it.

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

// A port's source leaves the loop and comes back, is made anew, moves to another loop: no request
// is lost, and none is served twice.
TEST(PortSources, ComeAndGoWhileThePortIsAsked) {
  OpenDescriptorCheck noLeaks;
  const size_t names = HostCountPorts().portNames;
  std::atomic<int> served{0};
  constexpr int kAskers = 3;
  const int each = 300 * TestScale();
  {
    LoopThread one, other;
    CFMachPortContext context = {};
    context.info = &served;
    CFMachPortRef port = CFMachPortCreate(kCFAllocatorDefault, AnswerEcho, &context, nullptr);
    std::atomic<int> running{kAskers};
    std::atomic<int> answered{0};
    const auto ask = [&] {
      for (SInt32 i = 0; i < each; i++) {
        const FaultAnswer answer = AskPort(CFMachPortGetPort(port), kEchoID, i);
        answered += answer.status == 0 && answer.number == i;
      }
      running--;
    };
    std::array<std::thread, kAskers> askers = {std::thread(ask), std::thread(ask),
                                               std::thread(ask)};
    for (int turn = 0; running > 0; turn++) {
      const CFRunLoopRef loop = turn % 2 == 0 ? one.Loop() : other.Loop();
      CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
      CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
      const int until = answered + 1;
      EXPECT_TRUE(WaitUntil([&] { return answered >= until || running == 0; }, 20s));
      CFRunLoopRemoveSource(loop, source, kCFRunLoopDefaultMode);
      if (turn % 3 == 0) CFRunLoopSourceInvalidate(source);
      CFRelease(source);
    }
    for (auto& asker : askers) asker.join();
    EXPECT_EQ(kAskers * each, answered);
    CFMachPortInvalidate(port);
    CFRelease(port);
  }
  EXPECT_EQ(kAskers * each, served);
  EXPECT_EQ(names, HostCountPorts().portNames);
}

// With few file descriptors left, listening either fails, and its name is free again, or the port
// answers.
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

// Clients with lanes ask a port that two loops watch, one of which comes and goes; a lane begins
// and ends with each client. No wake-up is lost, whichever loop sleeps.
TEST(PortSources, ServeLanesOnSeveralLoops) {
  OpenDescriptorCheck noLeaks;
  std::atomic<int> served{0};
  constexpr int kAskers = 3, kRounds = 4;
  const int each = 100 * TestScale();
  {
    LoopThread one, other;
    CFMachPortContext context = {};
    context.info = &served;
    CFMachPortRef port = CFMachPortCreate(kCFAllocatorDefault, AnswerEcho, &context, nullptr);
    const std::string name = UniquePortName();
    mach_port_t bootstrap = MACH_PORT_NULL;
    ASSERT_EQ(0, task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap));
    ASSERT_EQ(0, bootstrap_register(bootstrap, name.c_str(), CFMachPortGetPort(port)));
    CFRunLoopSourceRef source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, port, 0);
    CFRunLoopAddSource(one.Loop(), source, kCFRunLoopDefaultMode);
    std::atomic<int> running{kAskers};
    std::atomic<int> answered{0};
    const auto ask = [&] {
      for (int round = 0; round < kRounds; round++) {
        RawPeer peer(name.c_str());
        if (!peer.HasLane()) peer.TakeLane();
        for (SInt32 i = 0; i < each; i++) {
          const auto answer = peer.Ask(RawFrame(RawRequest(1), kEchoID, i));
          answered += answer && answer->number == i;
        }
      }
      running--;
    };
    std::array<std::thread, kAskers> askers = {std::thread(ask), std::thread(ask),
                                               std::thread(ask)};
    while (running > 0) {
      CFRunLoopAddSource(other.Loop(), source, kCFRunLoopDefaultMode);
      std::this_thread::yield();
      CFRunLoopRemoveSource(other.Loop(), source, kCFRunLoopDefaultMode);
    }
    for (std::thread& asker : askers) asker.join();
    EXPECT_EQ(kAskers * kRounds * each, answered);
    EXPECT_EQ(kAskers * kRounds * each, served);
    CFMachPortInvalidate(port);
    CFRelease(source);
    CFRelease(port);
  }
}

}  // namespace
