#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// The helpers that other tests trust to notice a fault.

TEST_ROLE(Echo) {
  role.Tell(role.PortName() + (" " + role.Argument(0)));
  role.SignalReady();
  const std::optional<std::string> line = role.Hear(20s);
  if (!line) return kRoleFailed;
  role.Tell(*line + *line);
  return role.NumberArgument(1);
}

TEST_ROLE(Mute) {
  role.Hear(60s);
  return kRoleDone;
}

TEST(TestProcess, TalksAndTellsItsExitStatus) {
  OpenDescriptorCheck noLeaks;
  TestProcess echo("Echo", {"a b", "17"});
  EXPECT_EQ(echo.PortName() + std::string(" a b"), echo.Hear(20s));
  EXPECT_TRUE(echo.WaitReady(20s));
  EXPECT_TRUE(echo.Tell("xy"));
  EXPECT_EQ("xyxy", echo.Hear(20s));
  EXPECT_EQ(17, echo.Wait(20s));
  EXPECT_EQ(std::nullopt, echo.Hear(1s));
}

TEST(TestProcess, AMuteOneIsNotWaitedForForEver) {
  OpenDescriptorCheck noLeaks;
  TestProcess mute("Mute");
  EXPECT_FALSE(mute.WaitReady(1ms));
  EXPECT_EQ(std::nullopt, mute.Wait(1ms));
  EXPECT_TRUE(mute.KillAndWait(20s));
  EXPECT_EQ(-SIGKILL, mute.Wait(0ms));
}

TEST(TestProcess, AnUnknownRoleFails) {
  TestProcess nobody("NoSuchRole");
  EXPECT_FALSE(nobody.WaitReady(20s));
  EXPECT_EQ(kRoleFailed, nobody.Wait(20s));
}

TEST(OpenDescriptorCheck, NoticesADescriptor) {
  static int leaked = -1;
  EXPECT_NONFATAL_FAILURE(
      {
        OpenDescriptorCheck check;
        leaked = open("/dev/null", O_RDONLY | O_CLOEXEC);
      },
      "/dev/null");
  close(leaked);
}

TEST(OpenDescriptorCheck, NoticesAChildThatNobodyReaped) {
  static pid_t child = 0;
  EXPECT_NONFATAL_FAILURE(
      {
        OpenDescriptorCheck check;
        child = fork();
        if (child == 0) _exit(0);
      },
      "HasChildren");
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
}
