#include <cstdlib>

#include "clients/device_monitor.h"
#include "clients/session_monitor.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "tests/tools/verbs/verb_runner.h"

// Clients that start their daemons: the applications of this build, found by their identifiers.

namespace {

constexpr char kSessionPort[] = "com.veltrane.vltsessiond.1.1";
constexpr char kDevicePort[] = "com.veltrane.vltdeviced.1.1";

// A daemon that was started for this test ends with it.
class StartedDaemons {
 public:
  StartedDaemons() { setenv("XDG_DATA_DIRS", VLT_BUILD_SHARE, 1); }
  ~StartedDaemons() {
    EXPECT_EQ(0, SMQuitDaemon());
    EXPECT_EQ(0, DMQuitDaemon());
    EXPECT_TRUE(WaitForNoPort(kSessionPort, 20s));
    EXPECT_TRUE(WaitForNoPort(kDevicePort, 20s));
  }
};

TEST(ClientsLaunch, TheToolStartsAndEndsTheSessionDaemon) {
  const std::string json = std::string("{\"port\":\"") + kSessionPort + "\",\"outcome\":\"";
  const std::string end = "\",\"error\":null}\n",
                    absent = std::string(kSessionPort) + " is not running";
  StartedDaemons cleanUp;
  const auto expectStatus = [&](int status, const std::string& outcome, const std::string& text) {
    const ProgramResult result = RunVerb({"status"}, {"--json"});
    EXPECT_EQ(status, result.status);
    EXPECT_TRUE(result.output.starts_with(json + outcome + "\",\"error\":null,")) << result.output;
    EXPECT_NE(std::string::npos, result.output.find(text)) << result.output;
  };
  expectStatus(3, "notRunning", "VLTSessionMonitor.app\",");  // what would be started
  ExpectRuns({}, {
                     {{"start", "--json"}, 0, json + "started" + end, ""},
                     {{"start"}, 0, "", "is already running"},
                 });
  expectStatus(0, "running", "com.veltrane.sessionmonitor.1.1.log\"");
  ExpectRuns({}, {{{"quit", "--json"}, 0, json + "quit" + end, ""}, {{"quit"}, 0, "", absent}});
}

TEST(ClientsLaunch, TheSessionDaemonIsStartedByVerifyIfLaunchingIsOn) {
  StartedDaemons cleanUp;
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());  // never starts the daemon
  EXPECT_EQ(0, SMSetLaunchIfNotRunning(false));
  EXPECT_EQ(procNotFound, SMVerifyDaemonRunning());
  EXPECT_EQ(0, SMSetLaunchIfNotRunning(true));
  EXPECT_EQ(procNotFound, SMCheckDaemonRunning());
  EXPECT_EQ(0, SMVerifyDaemonRunning());
  EXPECT_EQ(0, SMCheckDaemonRunning());
}

// Requests the number of devices, with launching switched on if its argument is "launch".
TEST_ROLE(DeviceClient) {
  SInt32 count = -1;
  if (role.Argument(0) == "launch") DMSetLaunchIfNotRunning(true);
  const OSStatus err = DMGetDeviceIDs(nullptr, 0, &count);
  role.Tell(std::to_string(err) + (count >= 0 ? " counted" : ""));
  return kRoleDone;
}

std::string AskedBy(const std::string& how) {
  TestProcess client("DeviceClient", {how});
  return client.Hear(40s).value_or("(nothing)");
}

TEST(ClientsLaunch, TheDeviceMonitorIsStartedOnlyWhenThatIsSwitchedOn) {
  StartedDaemons cleanUp;
  EXPECT_EQ("-600", AskedBy("only look"));
  EXPECT_EQ("0 counted", AskedBy("launch"));
  EXPECT_EQ("0 counted", AskedBy("only look"));
}

}  // namespace
