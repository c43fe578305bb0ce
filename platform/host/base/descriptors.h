#pragma once

#include <cstdint>

// This room is the machine without any platform idea: clock, mutexes, file descriptors, threads'
// own objects, text encodings. It uses no other room.
//
// A table of the file descriptors that the host layer keeps open. A forked child closes its copies
// of them: a right must end with its owner, not with the owner's last child. Any thread.

enum class HostDescriptorKind : uint8_t {
  kNone = 0,
  // Closed in a forked child, in this order: an epoll set first, so that closing what it watches
  // changes nothing in the parent's set.
  kEpoll,
  kListener,
  kConnection,
  kNameFile,
  kWake,
};

// Delays forks while a file descriptor is opened and entered, so that no child inherits one that is
// not in the table.
class HostDescriptorOpening {
 public:
  HostDescriptorOpening();
  ~HostDescriptorOpening();
  HostDescriptorOpening(const HostDescriptorOpening&) = delete;
  HostDescriptorOpening& operator=(const HostDescriptorOpening&) = delete;

  // Enters `fd`, which has just been opened, and returns its number, which is above 2 (see
  // HostAboveStandard). Returns -1 if `fd` is negative, and leaves errno. Returns -1 with EMFILE,
  // and closes `fd`, if no number above 2 is left or the number is too large for the table.
  int Enter(int fd, HostDescriptorKind kind);
};

// Returns a file descriptor above 2 for what `fd`, just opened, is open on. In a program that runs
// with a standard file descriptor closed, the kernel gives its number to the next file that is
// opened, and whatever prints would then write into that file. Moves and closes such an `fd`;
// returns any other as it is. Returns -1 with errno, and closes `fd`, if there is no other number.
// Any thread.
int HostAboveStandard(int fd);

// Takes `fd` out of the table and closes it. Negative numbers are ignored.
void HostCloseDescriptor(int fd);

// Returns a number that is another one in each forked child. State that contains file descriptors
// stores the generation in which it was made, and is made again if the present one differs.
uint32_t HostForkGeneration();

// Registers `reset`, which forked children call after they have closed the file descriptors. A
// child has only the thread that forked, and locks of other threads stay locked, so `reset` may
// write to memory and do nothing else. At most 8 functions can be registered; a module registers
// its function when it is first used.
void HostAtForkInChild(void (*reset)());
