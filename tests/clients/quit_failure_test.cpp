#include <gtest/gtest.h>

#include <string>

#include "clients/session_monitor.h"
#include "daemon/event_service.h"
#include "daemon/session_monitor.h"

// A quit request to the session daemon that fails, as a client and the daemon's quit switch see it.
// The client object is out of reach, and logs nothing as it is made: the linker puts stand-ins in
// the place of two of its operations.

namespace {

OSStatus sConstructed = 0;
std::string sLogged;

}  // namespace

OSStatus ConstructEventInstead(VLTAEClientSupport*, VLTPortDestinationAddress*,
                               VLTAppleEventWrapper*, bool)
    asm("__wrap__ZN18VLTAEClientSupport14ConstructEvent"
        "ER25VLTPortDestinationAddressR20VLTAppleEventWrapperb");
OSStatus LogClientFailureInstead(VLTAEClientSupport*, OSStatus err, const char* functionName)
    asm("__wrap__ZN18VLTAEClientSupport16LogClientFailureEiPKc");

OSStatus ConstructEventInstead(VLTAEClientSupport*, VLTPortDestinationAddress*,
                               VLTAppleEventWrapper*, bool verify) {
  EXPECT_FALSE(verify);  // nobody is started for it
  return sConstructed;
}

OSStatus LogClientFailureInstead(VLTAEClientSupport*, OSStatus err, const char* functionName) {
  sLogged += std::string(functionName) + " " + std::to_string(err) + ";";
  return 0;
}

namespace {

TEST(SessionQuit, FailuresAreLoggedUnderItsName) {
  const struct {
    OSStatus constructed;
    OSStatus result;
    const char* logged;
  } rows[] = {
      {procNotFound, 0, ""},  // nobody is there
      {1100, 0, ""},          // nor when the look-up says so
      {1102, 0, ""},
      {1105, 0, ""},
      {1106, 1106, "SMQuitDaemon 1106;"},
      {paramErr, paramErr, "SMQuitDaemon -50;"},
      {errAETimeout, errAETimeout, "SMQuitDaemon -1712;"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.constructed);
    sConstructed = row.constructed;
    sLogged.clear();
    EXPECT_EQ(row.result, SMQuitDaemon());
    EXPECT_EQ(row.logged, sLogged);
  }
}

TEST(SessionQuit, AFailureEndsTheStartAndStopRunWithoutTheLoop) {
  char name[] = "vltsessiond";
  char option[] = "-q";
  char* arguments[] = {name, option, nullptr};
  ParseSessionDaemonOptions(2, arguments);
  sConstructed = paramErr;
  EXPECT_EQ(paramErr, initializeSessionManager());
  EXPECT_TRUE(checkPortRegistered(kSessionDaemonPortName));
  EXPECT_EQ(0, termSessionManager());
  EXPECT_EQ(0, sessionMonitor());  // would never return from the loop
  EXPECT_FALSE(checkPortRegistered(kSessionDaemonPortName));
}

}  // namespace
