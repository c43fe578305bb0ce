#pragma once

#include <sys/types.h>

// Starting a program that has nothing to do with us but our environment. Any thread.

struct HostStartedProgram {
  pid_t pid = 0;
  int descriptor = -1;  // of the process (pidfd), readable once it has ended; the caller closes it
};

// Runs the program at an absolute path, by exec and never through a shell. The path is its only
// argument unless `arguments` are given (the first is the name, null at the end). It begins with
// descriptors 0 to 2 on /dev/null and no others (0 is `input`, which the caller keeps, when that is
// given), in a session of its own, in the root folder, with no signal blocked, ignored or caught.
// It is nobody's child: when it ends the caller gets no SIGCHLD and has nothing to wait for (unless
// it is a subreaper), and whatever handlers, mask and children the caller has stay as they are.
//
// Returns once the program runs, 0 or an errno value: of the exec, or of what kept us from getting
// there. Not from a process that an emulator runs (EINVAL).
int HostStartProgram(const char* path, HostStartedProgram* started,
                     char* const* arguments = nullptr, int input = -1);
