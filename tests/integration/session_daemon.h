#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/event_service.h"
#include "tests/support/child_process.h"
#include "tests/support/test_process.h"

// The session daemon as a program, for tests that know its VLTSESSIOND_PROGRAM. Killed at the end
// at the latest.
class SessionDaemonProcess {
 public:
  explicit SessionDaemonProcess(const std::vector<std::string>& words = {}) {
    ChildOptions options;
    options.arguments = TestLauncher();
    options.arguments.push_back(VLTSESSIOND_PROGRAM);
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.capture = true;
    EXPECT_TRUE(child.Start(options));
  }
  bool HasPort() const { return WaitForPort(kSessionDaemonPortName, 20s); }
  bool IsRunning() { return !child.Wait(0ms); }
  void Kill() { child.KillAndWait(20s); }
  // Waits for its end by itself, with status 0 and without a word.
  void ExpectSilentEnd() {
    EXPECT_EQ(0, child.Wait(20s));
    EXPECT_EQ("", child.Output() + child.Errors());
  }

 private:
  ChildProcess child;
};
