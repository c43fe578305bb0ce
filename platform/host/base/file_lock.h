#pragma once

#include <sys/types.h>

// Locks on single bytes of a file, of the open-file-description kind: they belong to the
// description, not to the process. They are dropped with its last descriptor, so also when the
// owner dies, and are not disturbed by another descriptor of the same file being closed. Any
// thread.

// Locks the byte for us alone, without waiting. False with errno: EAGAIN or EACCES when somebody
// else has it.
bool HostTryLockByte(int fd, off_t start);

// Gives the byte back, also for copies of the descriptor in forked children.
void HostUnlockByte(int fd, off_t start);

// Whether `file` in `directory` still names what `fd` is open on. What was removed guards nothing.
bool HostIsSameFile(int directory, const char* file, int fd);
