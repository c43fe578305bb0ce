#include <gtest/gtest.h>

#include <CoreServices/CoreServices.h>

#include <string>

#include "tests/integration/fault_server.h"
#include "tests/integration/raw_peer.h"
#include "tests/support/interrupted_calls.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Signals without SA_RESTART, in every call that a server waits or works in.

namespace {

TEST_ROLE(InterruptedServer) {
  InterruptCalls(role.NumberArgument(0));
  FaultListener listener(&role);
  if (listener.Listen() != 0) return kRoleFailed;
  role.SignalReady();
  CFRunLoopRun();
  return kRoleFailed;
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

}  // namespace
