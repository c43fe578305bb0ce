#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>

// Starting a program that inherits this process's environment and nothing else. Any thread.

struct HostStartedProgram {
  pid_t pid = 0;
  int descriptor = -1;  // a pidfd, readable once the process has ended; the caller closes it
};

// Learns how a started program ends. As long as the object lives, the program is the child of a
// watching process that shares this process's memory, holds no file descriptor and ends with the
// object or with the thread that made it. After that the program goes on as an orphan. One thread.
class HostEndWatch {
 public:
  HostEndWatch();
  ~HostEndWatch();
  HostEndWatch(const HostEndWatch&) = delete;
  HostEndWatch& operator=(const HostEndWatch&) = delete;

  // Call it after the program has ended. Returns the status as waitpid gives it, or nothing if the
  // kernel cannot watch (before 5.11) or the watching process was killed.
  std::optional<int> Status();

 private:
  friend int HostStartProgram(const char*, HostStartedProgram*, const struct HostProgramStart&);
  struct State;
  std::unique_ptr<State> state;
};

// How a program begins, besides its path.
struct HostProgramStart {
  char* const* arguments = nullptr;  // its name, then the others, null at the end; null: its path
  int input = -1;                    // file descriptor 0 becomes a copy of it
  int output = -1;                   // file descriptors 1 and 2 do
  HostEndWatch* watch = nullptr;     // learns how it ends
};

// Runs the program at an absolute path by exec, never through a shell. The program begins with file
// descriptors 0 to 2 and no others; those that are not given are /dev/null, and the caller keeps
// the originals. It begins in a POSIX session of its own, in the root folder, with no signal
// blocked, ignored or caught. It is not a child of the caller, which gets no SIGCHLD and has
// nothing to wait for (unless it is a subreaper). The caller's signal handlers, signal mask and
// children stay as they are.
//
// Returns once the program runs: 0, or the errno value of exec or of an earlier step. A process
// that runs in an emulator cannot start programs (EINVAL).
int HostStartProgram(const char* path, HostStartedProgram* started,
                     const HostProgramStart& how = {});
