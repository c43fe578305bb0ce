#include <gtest/gtest.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/host/introspect.h"
#include "tests/integration/fault_server.h"
#include "tests/integration/process_use.h"
#include "tests/support/open_descriptor_check.h"

// Run-loop sources that threads add, remove, invalidate and signal while they fire. One process, so
// that the thread sanitizer sees all of it.

namespace {

constexpr int kTurns = 2000;  // of each thread; scaled

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

struct Counted {
  std::atomic<int> fired{0};
  CFRunLoopSourceRef source = nullptr;

  explicit Counted(CFIndex order) {
    CFRunLoopSourceContext context = {};
    context.info = this;
    context.perform = [](void* info) { static_cast<Counted*>(info)->fired++; };
    source = CFRunLoopSourceCreate(kCFAllocatorDefault, order, &context);
  }
  ~Counted() { CFRelease(source); }
};

TEST(Sources, ChangeHandsWhileTheyFire) {
  std::vector<std::unique_ptr<Counted>> sources;
  for (CFIndex i = 0; i < 8; i++) sources.push_back(std::make_unique<Counted>(i % 3));
  {
    LoopThread server;
    const CFRunLoopRef loop = server.Loop();
    const auto churn = [&](size_t first) {
      for (int turn = 0; turn < kTurns * TestScale(); turn++) {
        const auto number = static_cast<size_t>(turn) + first;
        const CFRunLoopSourceRef source = sources[number % sources.size()]->source;
        CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
        CFRunLoopSourceSignal(source);
        CFRunLoopWakeUp(loop);
        if (number % 3 == 0) CFRunLoopRemoveSource(loop, source, kCFRunLoopDefaultMode);
      }
    };
    std::thread a(churn, 0), b(churn, 3), c(churn, 5);
    a.join();
    b.join();
    c.join();
    // After all that every one still works, and is deaf once it is invalid.
    for (auto& each : sources) {
      const int before = each->fired;
      CFRunLoopAddSource(loop, each->source, kCFRunLoopDefaultMode);
      CFRunLoopSourceSignal(each->source);
      CFRunLoopWakeUp(loop);
      EXPECT_TRUE(WaitUntil([&] { return each->fired > before; }, 20s));
      CFRunLoopSourceInvalidate(each->source);
    }
  }
  std::vector<int> atTheEnd;
  for (auto& each : sources) atTheEnd.push_back(each->fired);
  LoopThread other;
  Counted last(9);
  for (auto& each : sources) {
    CFRunLoopAddSource(other.Loop(), each->source, kCFRunLoopDefaultMode);
    CFRunLoopSourceSignal(each->source);
  }
  CFRunLoopAddSource(other.Loop(), last.source, kCFRunLoopDefaultMode);
  CFRunLoopSourceSignal(last.source);
  CFRunLoopWakeUp(other.Loop());
  EXPECT_TRUE(WaitUntil([&] { return last.fired > 0; }, 20s));
  for (size_t i = 0; i < sources.size(); i++) EXPECT_EQ(atTheEnd[i], sources[i]->fired);
  CFRunLoopSourceInvalidate(last.source);
}

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
TEST(Sources, OfAPortComeAndGoWhileItIsAsked) {
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

}  // namespace
