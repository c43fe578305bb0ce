#include <cerrno>

#include "tests/integration/raw_peer.h"
#include "tests/support/interrupted_calls.h"

// A server's system calls that are interrupted by a signal without SA_RESTART, or fail.

namespace {

TEST_ROLE(InterruptedServer) {
  InterruptCalls(role.NumberArgument(0));
  FaultListener listener(&role);
  return listener.ServeForEver();
}

TEST(InterruptedServers, ServeEveryRequest) {
  for (const char* interval : {"2", "3", "5"}) {
    SCOPED_TRACE(interval);
    OpenDescriptorCheck noLeaks;
    ServerProcess server("InterruptedServer", {interval});
    const std::string large = PatternBytes(3 << 20);
    for (SInt32 i = 0; i < 20; i++) {
      RunOnThread([&] {
        EXPECT_EQ(i, AskServer(server.PortName(), kEchoID, i).number);
        EXPECT_EQ(large, AskServer(server.PortName(), kEchoID, i, large).data);
      });
      // A reply that waits in the server until its reader comes.
      RawPeer slow(server.PortName());
      ASSERT_TRUE(slow.Write(RawFrame(RawRequest(1), kFillID, 3 << 20)));
      CountsOf(server.PortName());
      EXPECT_TRUE(slow.ReadFrame().has_value());
    }
    server.ExpectUnchanged();
  }
}

// For each line from the test, makes a call of the next connection's set-up fail.
TEST_ROLE(FailingServer) {
  FaultListener listener(&role);
  if (listener.Listen() != 0) return RoleFailed();
  role.SignalReady();
  for (;;) {
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.02, true);
    const auto line = role.Hear(0ms);
    if (!line) continue;
    if (*line == "watch") FailNextWatches(1, ENOSPC);
    if (*line == "peer") FailNextSocketOptions(1, ENOBUFS);
    role.Tell("armed");
  }
}

TEST(FailingServers, CloseAConnectionThatCannotBeMadeWhole) {
  OpenDescriptorCheck noLeaks;
  ServerProcess server("FailingServer");
  for (const char* what : {"watch", "peer", "watch"}) {
    SCOPED_TRACE(what);
    RawPeer before(server.PortName());
    EXPECT_TRUE(before.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
    ASSERT_TRUE(server.Tell(what));
    ASSERT_EQ("armed", server.Hear(20s));
    RawPeer unlucky(server.PortName());
    unlucky.Write(RawFrame(RawRequest(1), kEchoID, 1));
    EXPECT_TRUE(unlucky.WaitHungUp());
    EXPECT_TRUE(before.Ask(RawFrame(RawRequest(2), kEchoID, 1)));
    RawPeer after(server.PortName());
    EXPECT_TRUE(after.Ask(RawFrame(RawRequest(1), kEchoID, 1)));
  }
  server.ExpectUnchanged();
}

}  // namespace
