#include "platform/host/processes/start_program.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
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
// If the caller wants to know how the program ends, the intermediate process does not exit but
// waits for that end and puts the status into the shared memory. It then runs beside the caller. So
// it only makes system calls that cannot fail, because a failure would store into the caller's
// errno; it gives up its copies of all file descriptors, or the caller's ports and locks would
// outlive the caller; and the kernel kills it when the caller's thread ends.
//
// The code that runs before exec shares memory with this process's other threads, which keep
// running. It may only make system calls: no locks, no allocation. It is built without sanitizers,
// whose marks on the shared stack would never be removed.

#define VLT_IN_NEW_PROCESS __attribute__((no_sanitize("address", "thread", "undefined")))

#ifndef CLOSE_RANGE_UNSHARE
#define CLOSE_RANGE_UNSHARE (1U << 1)
#endif
#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace {

constexpr size_t kStackSize = 64 * 1024;  // of each of the two processes
constexpr int kExitedWithoutExec = 127;   // no process waits for it

struct Start {
  const char* path;
  char* const* arguments;
  int input;    // becomes file descriptor 0; if it is -1, `nothing` does
  int output;   // likewise for 1 and 2
  int nothing;  // /dev/null
  char* stack;  // of the program's process
  bool isWatched;
  HostStartedProgram program;
  int error;  // errno of what failed, else 0
  // Set to 1 by the intermediate process, without std::atomic, whose functions sanitizers mark.
  uint32_t isBegun;   // the program runs or has failed; a futex
  uint32_t hasEnded;  // `end` is known
  siginfo_t end;      // of a watched program
};

VLT_IN_NEW_PROCESS void SetStandardDescriptors(int input, int output, int nothing) {
  if (input >= 0 && input <= 2) input = fcntl(input, F_DUPFD, 3);
  if (output >= 0 && output <= 2) output = fcntl(output, F_DUPFD, 3);
  for (int descriptor = 2; descriptor >= 0; descriptor--) {
    const int given = descriptor == 0 ? input : output;
    const int source = given >= 0 ? given : nothing;
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
  SetStandardDescriptors(start->input, start->output, start->nothing);
  MarkOtherDescriptors();
  if (chdir("/") == 0) {
    ResetSignals();
    execve(start->path, start->arguments, environ);
  }
  start->error = errno;
  _exit(kExitedWithoutExec);
}

VLT_IN_NEW_PROCESS void SayBegun(Start* start) {
  __atomic_store_n(&start->isBegun, 1U, __ATOMIC_RELEASE);
  syscall(SYS_futex, &start->isBegun, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

// Waits for the program's end. Runs beside the caller from SayBegun on.
VLT_IN_NEW_PROCESS void WatchForEnd(Start* start) {
  if (syscall(SYS_close_range, 0U, UINT_MAX, CLOSE_RANGE_UNSHARE) != 0) return;
  SayBegun(start);
  syscall(SYS_waitid, P_PID, start->program.pid, &start->end, WEXITED, nullptr);
  __atomic_store_n(&start->hasEnded, 1U, __ATOMIC_RELEASE);
}

VLT_IN_NEW_PROCESS int RunIntermediate(void* argument) {
  auto* const start = static_cast<Start*>(argument);
  if (start->isWatched) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // If it were ignored, as the caller may do, the kernel would keep no status.
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &action, nullptr);
  }
  // The pidfd is opened in the table of file descriptors that is shared with the caller.
  const pid_t pid = clone(RunProgram, start->stack, CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD,
                          start, &start->program.descriptor);
  if (pid < 0) start->error = errno;
  start->program.pid = pid;
  if (start->isWatched && start->error == 0) WatchForEnd(start);
  SayBegun(start);
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

// Waits until the intermediate process has ended.
void WaitForIntermediate(pid_t pid) {
  while (waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
  }
}

// Waits until the program runs, or the intermediate process has ended without starting it. Returns
// whether the intermediate process still exists.
bool WaitForBegin(Start* start, pid_t pid) {
  constexpr timespec kBetweenLooks = {0, 50'000'000};
  while (__atomic_load_n(&start->isBegun, __ATOMIC_ACQUIRE) == 0) {
    syscall(SYS_futex, &start->isBegun, FUTEX_WAIT, 0, &kBetweenLooks, nullptr, 0);
    const bool isSilent = __atomic_load_n(&start->isBegun, __ATOMIC_ACQUIRE) == 0;
    if (isSilent && waitpid(pid, nullptr, __WALL | WNOHANG) == pid) {
      if (start->program.pid <= 0) start->error = ECHILD;
      return false;
    }
  }
  return true;
}

// Returns the pid of the intermediate process if it watches the program, else 0.
pid_t RunToExec(Start* start, char* stack) {
  const AllSignalsBlocked noHandlersThere;
  // Without a signal in the flags the end of the intermediate process sends none.
  const int flags = CLONE_VM | CLONE_FILES | (start->isWatched ? 0 : CLONE_VFORK);
  const pid_t pid = clone(RunIntermediate, stack, flags, start);
  if (pid < 0) {
    start->error = errno;
    return 0;
  }
  if (start->isWatched) {
    if (!WaitForBegin(start, pid)) return 0;
    if (start->error == 0) return pid;
  }
  WaitForIntermediate(pid);
  assert(start->error != 0 || start->program.pid > 0);
  return 0;
}

}  // namespace

// The memory that the watching process shares with this one.
struct HostEndWatch::State {
  Stacks stacks;
  Start start = {};
  pid_t pid = 0;  // of the watching process; 0 if there is none
};

HostEndWatch::HostEndWatch() : state(std::make_unique<State>()) {}

HostEndWatch::~HostEndWatch() {
  if (state->pid == 0) return;
  // It is a child that has not been waited for, so the pid cannot be another process's.
  kill(state->pid, SIGKILL);
  WaitForIntermediate(state->pid);
}

std::optional<int> HostEndWatch::Status() {
  if (state->pid != 0) WaitForIntermediate(state->pid);
  state->pid = 0;
  if (__atomic_load_n(&state->start.hasEnded, __ATOMIC_ACQUIRE) == 0) return std::nullopt;
  const siginfo_t& end = state->start.end;
  if (end.si_code == CLD_EXITED) return W_EXITCODE(end.si_status, 0);
  return W_EXITCODE(0, end.si_status);
}

int HostStartProgram(const char* path, HostStartedProgram* started, const HostProgramStart& how) {
  char* const nameOnly[] = {const_cast<char*>(path), nullptr};
  char* const* const arguments = how.arguments != nullptr ? how.arguments : nameOnly;
  assert(path[0] == '/' && arguments[0] != nullptr);
  std::optional<HostEndWatch> unwatched;
  if (how.watch == nullptr) unwatched.emplace();
  HostEndWatch::State& state = *(how.watch != nullptr ? how.watch : &*unwatched)->state;
  assert(state.pid == 0);
  if (!state.stacks.IsUsable()) return ENOMEM;
  const int nothing = HostAboveStandard(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (nothing < 0) return errno;
  Start& start = state.start;
  start.path = path;
  start.arguments = arguments;
  start.input = how.input;
  start.output = how.output;
  start.nothing = nothing;
  start.stack = state.stacks.Top(0);
  start.isWatched = how.watch != nullptr;
  state.pid = RunToExec(&start, state.stacks.Top(1));
  close(nothing);
  if (start.error == 0) {
    *started = start.program;
    started->descriptor = HostAboveStandard(started->descriptor);
  } else if (start.program.descriptor >= 0) {
    close(start.program.descriptor);
  }
  return start.error;
}
