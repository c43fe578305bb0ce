#include "clients/quit_request.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
