#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/session_directory.h"
#include "tests/support/test_environment.h"
#include "tests/support/test_role.h"

int main(int argc, char** argv) {
  if (const std::optional<int> status = RunRoleOfCommandLine(argc, argv)) return *status;
  testing::InitGoogleTest(&argc, argv);
  SetTestVariables();
  const TestSessionDirectory session;
  if (!session.IsUsable()) {
    std::perror("cannot make a session directory for the test");
    return 1;
  }
  return RUN_ALL_TESTS();
}
