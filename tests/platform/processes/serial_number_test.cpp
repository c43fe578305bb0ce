#include "platform/host/processes/serial_number.h"

#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tests/support/permissions.h"

namespace {

bool AreSame(const ProcessSerialNumber& a, const ProcessSerialNumber& b) {
  return a.highLongOfPSN == b.highLongOfPSN && a.lowLongOfPSN == b.lowLongOfPSN;
}

}  // namespace

TEST(ProcessManager, ThisProcessIsFoundByEveryNumber) {
  ProcessSerialNumber own = {}, byPid = {};
  const ProcessSerialNumber current = {0, kCurrentProcess};
  ASSERT_EQ(noErr, GetCurrentProcess(&own));
  EXPECT_EQ(static_cast<UInt32>(getpid()), own.lowLongOfPSN);
  EXPECT_NE(0u, own.highLongOfPSN);
  EXPECT_EQ(noErr, GetProcessForPID(getpid(), &byPid));
  EXPECT_TRUE(AreSame(own, byPid));
  Boolean same = false;
  EXPECT_EQ(noErr, SameProcess(&own, &current, &same));
  EXPECT_TRUE(same);
  pid_t pid = 0;
  EXPECT_EQ(noErr, GetProcessPID(&current, &pid));
  EXPECT_EQ(getpid(), pid);
}

TEST(ProcessManager, UnknownProcessesAreNotFound) {
  ProcessSerialNumber own = {};
  ASSERT_EQ(noErr, GetCurrentProcess(&own));
  const ProcessSerialNumber rows[] = {
      {0, kNoProcess},
      {own.highLongOfPSN + 1, own.lowLongOfPSN},  // an earlier process with this pid
      {own.highLongOfPSN, 0x80000000u | own.lowLongOfPSN},
  };
  for (const ProcessSerialNumber& row : rows) {
    pid_t pid = -7;
    EXPECT_EQ(procNotFound, GetProcessPID(&row, &pid)) << row.lowLongOfPSN;
    EXPECT_EQ(-7, pid);
  }
  for (pid_t pid : {0, -1, INT32_MAX}) EXPECT_EQ(procNotFound, GetProcessForPID(pid, &own));
}

// The child's name resembles the fields of its status. It has a serial number of its own, the same
// for all, and is gone as soon as it is a zombie.
TEST(ProcessManager, AChildHasTheNumberThatItsParentSees) {
  ProcessSerialNumber own = {}, told = {}, seen = {};
  ASSERT_EQ(noErr, GetCurrentProcess(&own));
  int pipes[2];
  ASSERT_EQ(0, pipe(pipes));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);
    prctl(PR_SET_NAME, ") Z 1 (2", 0, 0, 0);
    ProcessSerialNumber psn = {};
    GetCurrentProcess(&psn);
    if (write(pipes[1], &psn, sizeof psn) != sizeof psn) _exit(1);
    for (;;) pause();
  }
  ASSERT_EQ(ssize_t{sizeof told}, read(pipes[0], &told, sizeof told));
  EXPECT_EQ(noErr, GetProcessForPID(child, &seen));
  EXPECT_TRUE(AreSame(told, seen)) << told.highLongOfPSN << " " << seen.highLongOfPSN;
  EXPECT_FALSE(AreSame(told, own));
  pid_t pid = 0;
  EXPECT_EQ(noErr, GetProcessPID(&told, &pid));
  EXPECT_EQ(child, pid);

  kill(child, SIGKILL);
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_EQ(procNotFound, GetProcessPID(&told, &pid));
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_EQ(procNotFound, GetProcessPID(&told, &pid));
  close(pipes[0]);
  close(pipes[1]);
}

TEST(ProcessManager, OtherUsersProcessesHaveNoNumber) {
  SKIP_IF(NoOtherUsers());
  int pipes[2];
  ASSERT_EQ(0, pipe(pipes));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);
    if (setuid(65534) != 0) _exit(1);
    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);  // else /proc shows it as root's
    if (write(pipes[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte;
  ASSERT_EQ(1, read(pipes[0], &byte, 1));
  HostProcessStatus status;
  ASSERT_EQ(0, HostReadProcessStatus(child, &status));
  EXPECT_EQ(65534u, status.uid);
  ProcessSerialNumber psn = {};
  EXPECT_EQ(procNotFound, GetProcessForPID(child, &psn));
  pid_t pid = 0;
  const ProcessSerialNumber number = {static_cast<UInt32>(status.startTicks),
                                      static_cast<UInt32>(child)};
  EXPECT_EQ(procNotFound, GetProcessPID(&number, &pid));
  kill(child, SIGKILL);
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
  close(pipes[0]);
  close(pipes[1]);
}

TEST(ProcessManager, ThreadsOfTheKernelHaveNoNumber) {
  char name[32] = "";
  if (FILE* file = fopen("/proc/2/comm", "r")) {
    if (fgets(name, sizeof name, file) == nullptr) name[0] = 0;
    fclose(file);
  }
  if (strcmp(name, "kthreadd\n") != 0) GTEST_SKIP() << "process 2 is not the kernel's";
  HostProcessStatus status;
  EXPECT_EQ(ESRCH, HostReadProcessStatus(2, &status));
}
