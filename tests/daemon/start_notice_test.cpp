#include <gtest/gtest.h>

#include <cstdlib>

#include "aeport/port_listener.h"
#include "daemon/event_service.h"
#include "daemon/session_monitor.h"
#include "tests/support/scratch_folder.h"
#include "util/app_error_utils.h"

namespace {

TEST(StartNotice, NamesTheProgramAndIsCut) {
  VLTPortAEMachPortListener holder;
  ASSERT_EQ(0, holder.ListenOnPort(kSessionDaemonPortName, CFRunLoopGetCurrent(),
                                   SMAEDispatchCallback, nullptr));
  VLTAppErrorUtils::setAppName("/a/b/vltsessiond");
  EXPECT_EQ(0, sessionMonitor());  // returns at once: it does not run the loop
  EXPECT_NE(std::string::npos,
            ReadFile(std::getenv("VLTHOST_NOTICES"))
                .find("vltsessiond failed to start. Usually this is because another copy of "
                      "the session daemon is already running."));

  const std::string longName(255, 'n');
  VLTAppErrorUtils::setAppName(longName.c_str());
  VLTAppErrorUtils::sNotificationFlags = 0;  // as if the first notice had been dismissed
  EXPECT_EQ(0, sessionMonitor());
  EXPECT_NE(std::string::npos,
            ReadFile(std::getenv("VLTHOST_NOTICES")).find(std::string(254, 'n')));
  EXPECT_EQ(std::string::npos, ReadFile(std::getenv("VLTHOST_NOTICES")).find(longName));
}

}  // namespace
