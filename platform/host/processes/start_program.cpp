#include "platform/host/processes/start_program.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "platform/host/base/descriptors.h"

// The caller creates an intermediate process that shares its memory and its file descriptors. The
// intermediate process creates the program's process, which shares only the memory, and exits. As
// with vfork, the kernel suspends the thread that creates each of them until that process has
// called exec or exited. So the program's process is an orphan from the start, and an error of exec
// is in this process's memory when the caller goes on. The intermediate process sends no signal
// when it ends and is waited for by its pid alone, so the caller's other children and its SIGCHLD
// are not affected. No memory is copied, so a start is as fast as with posix_spawn.
//
// The code that runs before exec shares memory with this process's other threads, which keep
// running. It may only make system calls: no locks, no allocation. It is built without sanitizers,
// whose marks on the shared stack would never be removed.

#define VLT_IN_NEW_PROCESS __attribute__((no_sanitize("address", "thread", "undefined")))

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace {

constexpr size_t kStackSize = 64 * 1024;  // of each of the two processes
constexpr int kExitedWithoutExec = 127;   // nobody waits for it

struct Start {
  const char* path;
  char* const* arguments;
  int input;    // becomes file descriptor 0; if it is -1, `nothing` does
  int nothing;  // /dev/null
  char* stack;  // of the program's process
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

// Makes exec close all file descriptors from 3 on, whatever their flags are.
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

// Resets the handlers before it unblocks signals: this process's handlers must not run in the new
// process, which shares its memory.
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

VLT_IN_NEW_PROCESS int RunIntermediate(void* argument) {
  auto* const start = static_cast<Start*>(argument);
  // The pidfd is opened in the table of file descriptors that is shared with the caller.
  const pid_t pid = clone(RunProgram, start->stack, CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD,
                          start, &start->program.descriptor);
  if (pid < 0) start->error = errno;
  start->program.pid = pid;
  _exit(0);
}

// Blocks also the signals that the C library reserves, which its own calls leave unblocked.
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

void RunToExec(Start* start, char* stack) {
  const AllSignalsBlocked noHandlersThere;
  // Without a signal in the flags the end of the intermediate process sends none.
  const pid_t pid = clone(RunIntermediate, stack, CLONE_VM | CLONE_VFORK | CLONE_FILES, start);
  if (pid < 0) {
    start->error = errno;
    return;
  }
  while (waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
  }
  assert(start->error != 0 || start->program.pid > 0);
}

}  // namespace

int HostStartProgram(const char* path, HostStartedProgram* started, char* const* arguments,
                     int input) {
  assert(path[0] == '/' && (arguments == nullptr || arguments[0] != nullptr));
  Stacks stacks;
  if (!stacks.IsUsable()) return errno;
  const int nothing = HostAboveStandard(open("/dev/null", O_RDWR | O_CLOEXEC));
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
