#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "aeport/port_listener.h"
#include "daemon/event_service.h"
#include "daemon/session_monitor.h"
#include "util/app_error_utils.h"

namespace {

std::string Notices() {
  std::ifstream file(std::getenv("VLTHOST_NOTICES"));
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(StartNotice, NamesTheProgramAndIsCut) {
  VLTPortAEMachPortListener holder;
  ASSERT_EQ(0, holder.ListenOnPort(kSessionDaemonPortName, CFRunLoopGetCurrent(),
                                   SMAEDispatchCallback, nullptr));
  VLTAppErrorUtils::setAppName("/a/b/vltsessiond");
  EXPECT_EQ(0, sessionMonitor());  // returns at once: it does not run the loop
  EXPECT_NE(std::string::npos,
            Notices().find("vltsessiond failed to start. Usually this is because another copy of "
                           "the session daemon is already running."));

  const std::string longName(255, 'n');
  VLTAppErrorUtils::setAppName(longName.c_str());
  VLTAppErrorUtils::sNotificationFlags = 0;  // as if the first notice had been dismissed
  EXPECT_EQ(0, sessionMonitor());
  EXPECT_NE(std::string::npos, Notices().find(std::string(254, 'n')));
  EXPECT_EQ(std::string::npos, Notices().find(longName));
}

}  // namespace
