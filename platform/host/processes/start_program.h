#pragma once

#include <sys/types.h>

// Starting a program that inherits this process's environment and nothing else. Any thread.

struct HostStartedProgram {
  pid_t pid = 0;
  int descriptor = -1;  // a pidfd, readable once the process has ended; the caller closes it
};

// Runs the program at an absolute path by exec, never through a shell. The path is the only
// argument unless `arguments` are given: the program's name, then the others, null at the end. The
// program begins with file descriptors 0 to 2 on /dev/null and no others; if `input` is given, 0 is
// a copy of it, and the caller keeps the original. It begins in a POSIX session of its own, in the
// root folder, with no signal blocked, ignored or caught. It is not a child of the caller, which
// gets no SIGCHLD and has nothing to wait for (unless it is a subreaper). The caller's signal
// handlers, signal mask and children stay as they are.
//
// Returns once the program runs: 0, or the errno value of exec or of an earlier step. A process
// that runs in an emulator cannot start programs (EINVAL).
int HostStartProgram(const char* path, HostStartedProgram* started,
                     char* const* arguments = nullptr, int input = -1);
