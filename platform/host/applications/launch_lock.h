#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include <CoreServices/MacTypes.h>

// Only one process of a session at a time opens a program: the one that holds the lock on a file in
// the session directory whose name is made from the program's path. The kernel releases the lock
// when its holder ends. The file contains the launch entry, which has the result of the last start.
// One thread per object.

// As many early ends as an entry counts.
constexpr int kHostMaxEarlyEnds = 1000;

struct HostLaunchEntry {
  pid_t pid = 0;          // of the process that was started; 0: of no start
  UInt32 startTicks = 0;  // high word of its serial number
  int64_t started = 0;    // when it was started, by HostNow
  int64_t opened = 0;     // when opening it had returned, by HostNow; 0 until then
  bool hadPort = false;   // a port of its was seen before opening it returned

  // The starts before this one that ended early, without a longer one in between, and when the last
  // of them was seen to have ended.
  int earlyEnds = 0;
  int64_t lastEarlyEnd = 0;
};

class HostLaunchLock {
 public:
  explicit HostLaunchLock(const std::string& program);
  ~HostLaunchLock();
  HostLaunchLock(const HostLaunchLock&) = delete;
  HostLaunchLock& operator=(const HostLaunchLock&) = delete;

  // Returns false if the session directory cannot be used or no file descriptor is left.
  bool IsUsable() const { return descriptor >= 0; }

  // Returns false while another process, or another object of this process, holds the lock. The
  // lock must be usable.
  bool Try();

  // Returns the entry if it is of this program, else an empty one. Any process may read; one that
  // does not hold the lock may find an entry that is being replaced.
  HostLaunchEntry Read() const;
  // Replaces the entry. For the holder.
  void Write(const HostLaunchEntry& entry);

 private:
  const std::string program;
  int descriptor = -1;
};
