#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/open_descriptor_check.h"

// The helpers by which other tests notice a fault.

TEST(OpenDescriptorCheck, NoticesADescriptorThatStaysOpen) {
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
