#pragma once

#include <sys/types.h>

// Locks on single bytes of a file. They are open-file-description locks: they belong to an opening
// of the file, not to the process, and end when its last file descriptor is closed, so also when
// the owner dies. Closing another file descriptor of the same file does not affect them. Any
// thread.

// Locks the byte exclusively, without waiting. Returns false with errno if that fails: EAGAIN or
// EACCES if another owner has it.
bool HostTryLockByte(int fd, off_t start);

// Unlocks the byte, also for copies of the file descriptor in forked children.
void HostUnlockByte(int fd, off_t start);

// Returns whether `file` in `directory` still is the file that `fd` is open on. A lock on a file
// that was removed or replaced excludes no other process.
bool HostIsSameFile(int directory, const char* file, int fd);
