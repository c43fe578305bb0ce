#include "clients/quit_request.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/session_directory.h"

namespace {

// A client whose server has no address.
class LostClient : public VLTAEClientSupport {
 public:
  explicit LostClient(OSStatus theReason)
      : VLTAEClientSupport("Srv", "Cli", "Pkg", 0, 600, false, true, false), reason(theReason) {}
  OSStatus GetDestinationAddress(VLTPortDestinationAddress&) override { return reason; }
  OSStatus VerifyServerRunning() override { return -1; }  // would start it

 private:
  const OSStatus reason;
};

TEST(QuitRequest, SucceedsIfTheServerDoesNotRun) {
  const std::tuple<OSStatus, bool, OSStatus> rows[] = {
      {procNotFound, false, 0}, {1100, true, 0},
      {1102, true, 0},          {1105, true, 0},
      {1106, true, 1106},       {1102, false, 1102},
      {paramErr, true, -50},    {errAETimeout, true, -1712},
  };
  for (const auto& [reason, lookUpTells, result] : rows) {
    SCOPED_TRACE(reason);
    ClearTestLog();
    LostClient client(reason);
    EXPECT_EQ(result, SendQuitRequest(client, lookUpTells, "Quit"));
    const std::string start = "404 Quit() - Error " + std::to_string(result) + " ";
    EXPECT_TRUE(result == 0 ? TestLogText().empty() : TestLogText().starts_with(start));
  }
}

// A client that records the arguments of a send and sends nothing.
class SendingClient : public VLTAEClientSupport {
 public:
  OSStatus SendEvent(VLTAppleEventWrapper&, SInt32 mode, int retries, int timeoutTicks) override {
    sent = {mode, retries, timeoutTicks};
    return 0;
  }
  OSStatus ConstructEvent(VLTPortDestinationAddress&, VLTAppleEventWrapper&, bool verify) override {
    verified = verify;
    return 0;
  }

  std::vector<int> sent;
  bool verified = true;
};

TEST(QuitRequest, IsSentOnceWithTwentySecondsForTheServerToTakeIt) {
  SendingClient client;
  EXPECT_EQ(0, SendQuitRequest(client, true, "Quit"));
  EXPECT_EQ((std::vector<int>{0, 0, 20 * 60}), client.sent);  // 0 attempts: the client's own number
  EXPECT_FALSE(client.verified);
}

}  // namespace
