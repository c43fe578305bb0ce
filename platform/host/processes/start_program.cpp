#include "platform/host/processes/start_program.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "platform/host/base/descriptors.h"

// How it is done: a helper process that shares our memory and our descriptor table makes the
// process of the program and ends. While each of the two runs, until it execs or ends, the kernel
// holds whoever made it. So the program's process is an orphan from the start; the helper raises no
// signal (it has none to raise) and is waited for by its pid alone; and a failure of the exec is a
// word in our memory when we go on. Nothing is copied, which makes it as quick as posix_spawn.
//
// Everything between here and the exec shares its memory with other threads that go on meanwhile:
// only system calls, no locks, no allocation. Sanitizers' marks on the stack would stay behind.

#define VLT_IN_NEW_PROCESS __attribute__((no_sanitize("address", "thread", "undefined")))

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace {

constexpr size_t kStackSize = 64 * 1024;  // of each of the two
constexpr int kExitedWithoutExec = 127;   // seen by nobody

struct Start {
  const char* path;
  char* const* arguments;
  int input;    // becomes descriptor 0; -1: `nothing` does
  int nothing;  // a descriptor of /dev/null
  char* stack;  // the program's process begins on it
  HostStartedProgram program;
  int error;  // errno of what failed, else 0
};

VLT_IN_NEW_PROCESS void SetStandardDescriptors(int input, int nothing) {
  if (input >= 0 && input <= 2) input = fcntl(input, F_DUPFD, 3);
  for (int descriptor = 2; descriptor >= 0; descriptor--) {
    const int source = descriptor == 0 && input >= 0 ? input : nothing;
    if (descriptor == source) {
      fcntl(descriptor, F_SETFD, 0);  // it is to stay open
    } else {
      dup2(source, descriptor);
    }
  }
}

// Whatever their flags are, descriptors from 3 on end with the exec.
VLT_IN_NEW_PROCESS void MarkOtherDescriptors() {
  if (syscall(SYS_close_range, 3U, UINT_MAX, CLOSE_RANGE_CLOEXEC) == 0) return;
  // A kernel before 5.11.
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const int end = limit.rlim_cur < INT_MAX ? static_cast<int>(limit.rlim_cur) : INT_MAX;
  for (int descriptor = 3; descriptor < end; descriptor++) {
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
}

// Before signals are let in: our handlers must not run on our memory there.
VLT_IN_NEW_PROCESS void ResetSignals() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; number++) sigaction(number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

VLT_IN_NEW_PROCESS int RunProgram(void* argument) {
  auto* const start = static_cast<Start*>(argument);
  setsid();
  SetStandardDescriptors(start->input, start->nothing);
  MarkOtherDescriptors();
  if (chdir("/") == 0) {
    ResetSignals();
    execve(start->path, start->arguments, environ);
  }
  start->error = errno;
  _exit(kExitedWithoutExec);
}

VLT_IN_NEW_PROCESS int RunHelper(void* argument) {
  auto* const start = static_cast<Start*>(argument);
  // Its descriptor is opened in the table that we share with our maker.
  const pid_t pid = clone(RunProgram, start->stack, CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD,
                          start, &start->program.descriptor);
  if (pid < 0) start->error = errno;
  start->program.pid = pid;
  _exit(0);
}

// Also those that the C library keeps for itself, which its own calls leave open.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() { Set(~uint64_t{0}, &before); }
  ~AllSignalsBlocked() { Set(before, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  static void Set(uint64_t mask, uint64_t* old) {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, old, sizeof mask);
  }

  uint64_t before = 0;
};

class Stacks {
 public:
  Stacks()
      : memory(mmap(nullptr, 2 * kStackSize, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
  ~Stacks() {
    if (IsUsable()) munmap(memory, 2 * kStackSize);
  }
  Stacks(const Stacks&) = delete;
  Stacks& operator=(const Stacks&) = delete;

  bool IsUsable() const { return memory != MAP_FAILED; }
  char* Top(int index) { return static_cast<char*>(memory) + (index + 1) * kStackSize; }

 private:
  void* memory;
};

void RunToExec(Start* start, char* helperStack) {
  const AllSignalsBlocked noHandlersThere;
  // No signal in the flags: its end raises none, whatever the caller does with SIGCHLD.
  const pid_t helper = clone(RunHelper, helperStack, CLONE_VM | CLONE_VFORK | CLONE_FILES, start);
  if (helper < 0) {
    start->error = errno;
    return;
  }
  while (waitpid(helper, nullptr, __WALL) < 0 && errno == EINTR) {
  }
}

}  // namespace

int HostStartProgram(const char* path, HostStartedProgram* started, char* const* arguments,
                     int input) {
  Stacks stacks;
  if (!stacks.IsUsable()) return errno;
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing < 0) return errno;
  char* const nameOnly[] = {const_cast<char*>(path), nullptr};
  if (arguments == nullptr) arguments = nameOnly;
  Start start = {path, arguments, input, nothing, stacks.Top(0), {}, 0};
  RunToExec(&start, stacks.Top(1));
  close(nothing);
  if (start.error == 0) {
    *started = start.program;
    started->descriptor = HostAboveStandard(started->descriptor);
  } else if (start.program.descriptor >= 0) {
    close(start.program.descriptor);
  }
  return start.error;
}
