#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include <CoreServices/MacTypes.h>

// Of all processes of a session, one at a time opens a program: it holds the lock of a file in the
// session's directory that stands for the program's path. The kernel drops the lock with its
// holder. In the file is what became of the last start. One thread per object.

struct HostLaunchRecord {
  pid_t pid = 0;          // of the process that was started; 0: there is no record
  UInt32 startTicks = 0;  // high word of its serial number
  int64_t opened = 0;     // when opening it had returned, by HostNow; 0 until then
  bool hadPort = false;   // a port of its was seen before opening it returned
};

class HostLaunchLock {
 public:
  explicit HostLaunchLock(const std::string& program);
  ~HostLaunchLock();
  HostLaunchLock(const HostLaunchLock&) = delete;
  HostLaunchLock& operator=(const HostLaunchLock&) = delete;

  // False when the session's directory cannot be used or there is no descriptor.
  bool IsUsable() const { return descriptor >= 0; }

  // False while somebody else holds it: another process, or another object of this one.
  bool Try();

  // A record is read only if it is of this program. To anybody but the holder it may be one that is
  // just being replaced.
  HostLaunchRecord Read() const;
  // For the holder.
  void Write(const HostLaunchRecord& record);

 private:
  const std::string program;
  int descriptor = -1;
};
