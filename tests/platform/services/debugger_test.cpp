#include <CoreServices/Debugging.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kChildDone = 42;

// Waits for the next stop of `child`. Returns the signal, or 0 if the child has ended.
int NextStop(pid_t child, int* status) {
  EXPECT_EQ(child, waitpid(child, status, 0));
  return WIFSTOPPED(*status) ? WSTOPSIG(*status) : 0;
}

}  // namespace

// Unlike a debugger, this tracer passes signals on. The process must survive that, too.
TEST(DebuggerStop, StopsInTheTracerAndGoesOn) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);  // ends it if the tracer fails
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    Debugger();
    _exit(kChildDone);
  }
  int status = 0;
  ASSERT_EQ(SIGSTOP, NextStop(child, &status));
  ASSERT_EQ(0, ptrace(PTRACE_CONT, child, nullptr, nullptr));
  EXPECT_EQ(SIGTRAP, NextStop(child, &status));
  ASSERT_EQ(0, ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(intptr_t{SIGTRAP})));
  EXPECT_EQ(0, NextStop(child, &status));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(kChildDone, WEXITSTATUS(status));
}
