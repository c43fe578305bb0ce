#pragma once

#include <cstdint>

// This room is the machine without any platform idea: clock, mutexes, file descriptors, threads'
// own objects, text encodings. It uses no other room.
//
// Every descriptor that the host layer keeps open is entered here, so that a forked child can give
// up its copies: a right must die with its owner, not with the owner's last child. Any thread.

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

// Holds off forks while a descriptor is opened and entered, so that no child inherits one unseen.
class HostDescriptorOpening {
 public:
  HostDescriptorOpening();
  ~HostDescriptorOpening();
  HostDescriptorOpening(const HostDescriptorOpening&) = delete;
  HostDescriptorOpening& operator=(const HostDescriptorOpening&) = delete;

  // Enters `fd`, just opened. Returns its number, which is above 2 (see HostAboveStandard); -1 with
  // errno kept if `fd` is negative; -1 with EMFILE, and `fd` closed, if it has no number above 2 or
  // its number is beyond the table.
  int Enter(int fd, HostDescriptorKind kind);
};

// Returns a file descriptor above 2 for what `fd`, just opened, is open on. In a program that runs
// with a standard descriptor closed the kernel gives its number to the next file that is opened,
// and whatever prints would then write into that file. Moves and closes such an `fd`; returns any
// other as it is. Returns -1 with errno, and closes `fd`, if there is no other number. Any thread.
int HostAboveStandard(int fd);

// Takes `fd` out of the table and closes it. Negative numbers are ignored.
void HostCloseDescriptor(int fd);

// Changes in every forked child. State that names descriptors remembers the generation it was made
// in and starts anew when it differs.
uint32_t HostForkGeneration();

// Registers `reset` to run in forked children after the descriptors are closed. Only the forking
// thread exists there and no lock is held usefully: `reset` may overwrite memory, nothing else. At
// most 8; called during start-up of the modules concerned.
void HostAtForkInChild(void (*reset)());
