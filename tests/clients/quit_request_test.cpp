#include "clients/quit_request.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/session_directory.h"

namespace {

// A client that fails to tell where its server is.
class LostClient : public VLTAEClientSupport {
 public:
  explicit LostClient(OSStatus theReason)
      : VLTAEClientSupport("Srv", "Cli", "Pkg", 0, 600, false, true, false), reason(theReason) {}
  OSStatus GetDestinationAddress(VLTPortDestinationAddress&) override { return reason; }
  OSStatus VerifyServerRunning() override { return -1; }  // would start it

 private:
  const OSStatus reason;
};

TEST(QuitRequest, NobodyToQuitIsNoFailure) {
  const struct {
    OSStatus reason;
    bool lookUpTells;
    OSStatus result;
  } rows[] = {
      {procNotFound, false, 0}, {1100, true, 0},
      {1102, true, 0},          {1105, true, 0},
      {1106, true, 1106},       {1102, false, 1102},
      {paramErr, true, -50},    {errAETimeout, true, -1712},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    ClearTestLog();
    LostClient client(row.reason);
    EXPECT_EQ(row.result, SendQuitRequest(client, row.lookUpTells, "Quit"));
    const std::string start = "404 Quit() - Error " + std::to_string(row.result) + " ";
    EXPECT_TRUE(row.result == 0 ? TestLogText().empty() : TestLogText().starts_with(start));
  }
}

// A client that records how it is told to send, and sends nothing.
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
